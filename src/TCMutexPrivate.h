// SPDX-License-Identifier: MIT
// What the library does with its locks besides their public operations.
#pragma once

#include "TCMutex.h"

namespace Velmora {

struct __attribute__((visibility("hidden"))) TCSemaphore::Private
{
    // Give for a semaphore that only the calling thread will free. It signals without the lock: on
    // one processor the waiter would otherwise run at once, find the lock taken, and sleep again.
    static void GiveKept(TCSemaphore& semaphore);

    // Waits like Try, but takes nothing.
    static bool AwaitUnit(TCSemaphore& semaphore, unsigned long timeout);

    // With the lock held: waits for a signal, and returns false after the timeout.
    static bool WaitOnce(TCSemaphore& semaphore, unsigned long timeout);

    // With the lock held: adds a unit, and returns whether to signal.
    static bool AddOne(TCSemaphore& semaphore);
};

struct __attribute__((visibility("hidden"))) TCMutex::Private
{
    // Waits until no thread holds the mutex, without taking it. Another thread may take it first.
    static bool AwaitFree(TCMutex& mutex, unsigned long timeout)
    {
        return TCSemaphore::Private::AwaitUnit(mutex.m_Semaphore, timeout);
    }

    // Locks once more for the thread that holds the mutex; returns false for any other.
    static bool LockAgain(TCMutex& mutex, GThread* self);

    // Follows the semaphore's Take.
    static void NoteOwner(TCMutex& mutex, GThread* self);
};

} // namespace Velmora
