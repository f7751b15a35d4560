// SPDX-License-Identifier: MIT
// The locks of src/ and their one guard, as clang's -Wthread-safety understands them.
//
// The analysis knows TCMutex and Mutex. It cannot follow
// - the standard mutexes and GMutex, which are fields of public classes or belong to GLib: a Lock
//   on them is plain RAII to it, and comments name what they guard;
// - that a TCMutex may be locked twice by one thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <type_traits>

#include <glib.h>

#include "Check.h"
#include "TCMutex.h"

namespace Velmora::Internal {

template <typename Lockable>
class Lock;

// std::mutex with annotations, for every lock of src/ that is not a field of a public class.
class SENNET_THREAD_SAFETY(capability("mutex")) Mutex
{
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // For functions that are called with the lock held.
    void AssertHeld() const SENNET_THREAD_SAFETY(assert_capability(this))
    {
#ifdef SENNET_CHECKS
        SENNET_CHECK(m_Holder == std::this_thread::get_id());
#endif
    }

private:
    friend class Lock<Mutex>;

    std::mutex m_Mutex;
#ifdef SENNET_CHECKS
    std::thread::id m_Holder; // guarded by m_Mutex
#endif
};

// Holds a lock for a scope: a TCMutex, a Mutex, a GMutex or a standard mutex.
template <typename Lockable>
class SENNET_THREAD_SAFETY(scoped_lockable) Lock
{
public:
    explicit Lock(Lockable& lockable) SENNET_THREAD_SAFETY(acquire_capability(lockable))
        : m_Lockable(lockable)
    {
        if constexpr (std::is_same_v<Lockable, TCMutex>) {
            lockable.Lock();
        } else if constexpr (std::is_same_v<Lockable, GMutex>) {
            g_mutex_lock(&lockable);
        } else {
            Native().lock();
            NoteHolder(std::this_thread::get_id());
        }
    }
    // For a lock that the thread holds already, after a successful Try().
    Lock(Lockable& lockable, std::adopt_lock_t) SENNET_THREAD_SAFETY(requires_capability(lockable))
        : m_Lockable(lockable)
    {}
    ~Lock() SENNET_THREAD_SAFETY(release_capability())
    {
        if constexpr (std::is_same_v<Lockable, TCMutex>) {
            m_Lockable.Unlock();
        } else if constexpr (std::is_same_v<Lockable, GMutex>) {
            g_mutex_unlock(&m_Lockable);
        } else {
            NoteHolder({});
            Native().unlock();
        }
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    // Both unlock while they wait, and may wake up without a cause: test the condition in a loop.
    void Wait(std::condition_variable& condition)
    {
        WaitUnlocked([&](auto& lock) { condition.wait(lock); });
    }
    void WaitUntil(std::condition_variable& condition, std::chrono::steady_clock::time_point end)
    {
        WaitUnlocked([&](auto& lock) { condition.wait_until(lock, end); });
    }

private:
    auto& Native()
    {
        if constexpr (std::is_same_v<Lockable, Mutex>) {
            return m_Lockable.m_Mutex;
        } else {
            return m_Lockable;
        }
    }
    void NoteHolder([[maybe_unused]] std::thread::id holder)
    {
#ifdef SENNET_CHECKS
        if constexpr (std::is_same_v<Lockable, Mutex>) {
            m_Lockable.m_Holder = holder;
        }
#endif
    }
    template <typename Function>
    void WaitUnlocked(Function wait)
    {
        struct Borrowed : std::unique_lock<std::mutex>
        {
            using unique_lock::unique_lock;
            ~Borrowed() { release(); } // also if a cancelled thread unwinds out of the wait
        };
        NoteHolder({});
        Borrowed lock(Native(), std::adopt_lock);
        wait(static_cast<std::unique_lock<std::mutex>&>(lock));
        NoteHolder(std::this_thread::get_id());
    }

    Lockable& m_Lockable;
};

} // namespace Velmora::Internal
