// SPDX-License-Identifier: MIT
/// @file
/// The locks: a counting semaphore and a recursive mutex, both with timeouts.
#pragma once

#include <atomic>
#include <cstdint>

#include <glib.h>

#include "SennetApi.h"

/// Declares to clang's `-Wthread-safety` what a lock is and what it guards, as in
/// `int m_Count SENNET_THREAD_SAFETY(guarded_by(m_Mutex));`. Empty for other compilers.
/// The analysis does not know recursive locks: it warns where one function locks a TCMutex twice.
#ifdef __clang__
#define SENNET_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define SENNET_THREAD_SAFETY(attribute)
#endif

namespace Velmora {

/// The timeout that never ends, for the locks and for TCEventIO::Ping(). As the count of a TCAlarm
/// it means "for ever". Where `unsigned long` has 32 bits, its largest value means the same.
SENNET_API extern const std::uint64_t VELMORA_INFINITY;

/// A counting semaphore.
///
/// Order of use: construct, Create(), use from any threads, Destroy(), destruct. Create() and
/// Destroy() must not overlap with another operation. Only Create() allocates memory, and only
/// Destroy() frees it.
class SENNET_API TCSemaphore
{
public:
    TCSemaphore() = default;
    virtual ~TCSemaphore() = default;
    TCSemaphore(const TCSemaphore&) = delete;
    TCSemaphore& operator=(const TCSemaphore&) = delete;

    /// Makes the semaphore usable.
    /// @param initialCount how many Take() succeed before the first Give()
    /// @return true
    /// @throw std::bad_alloc
    bool Create(int initialCount);

    /// Takes one unit; blocks until there is one.
    void Take();

    /// Takes one unit; waits for it, but not longer than the timeout.
    ///
    /// The timeout limits the time between two wake-ups: a waiter that is woken after another
    /// thread has taken the unit waits for the whole timeout again.
    /// @param timeout microseconds of the monotonic clock, or VELMORA_INFINITY; 0 does not wait
    /// @return true if a unit was taken; false after the timeout or, with an error line, on a
    ///         semaphore that is not created
    bool Try(unsigned long timeout);

    /// Adds one unit and wakes one waiter. The woken thread may destroy the semaphore, because
    /// Give() does not touch it after that thread can run.
    void Give();

    /// Frees what Create() has made, and writes an error line with an empty body. That line is
    /// normal; the stand-in for the log service hides it. Does nothing on a semaphore that is not
    /// created.
    virtual void Destroy();

    /// @cond internal
    struct Private; // the library's own operations, in src/
    /// @endcond

private:
    int m_Count;                    ///< guarded by *m_EventMutex
    GMutex* m_EventMutex = nullptr; ///< owned; null while not created
    GCond* m_EventCond = nullptr;   ///< owned; null while not created
    int m_Waiters = 0;              ///< threads inside a wait; guarded by *m_EventMutex
    /// Upper bound of the waiters that were signalled but have not returned yet; guarded by
    /// *m_EventMutex.
    int m_Woken = 0;
};

/// A recursive mutex with a timeout.
///
/// Order of use: construct, Create(), use from any threads, Destroy(), destruct. The destructor
/// frees nothing.
class SENNET_API SENNET_THREAD_SAFETY(capability("mutex")) TCMutex
{
public:
    TCMutex() = default;
    virtual ~TCMutex() = default;
    TCMutex(const TCMutex&) = delete;
    TCMutex& operator=(const TCMutex&) = delete;

    /// Makes the mutex usable, and unlocked.
    /// @return true
    /// @throw std::bad_alloc
    bool Create();

    /// Blocks until the calling thread holds the mutex. The holder may lock it again; each Lock()
    /// and each successful Try() needs its own Unlock().
    void Lock() SENNET_THREAD_SAFETY(acquire_capability());

    /// Like Lock(), with a timeout. The holder succeeds at once, whatever the timeout.
    /// @param timeout microseconds, or VELMORA_INFINITY; see TCSemaphore::Try()
    /// @return true if the calling thread holds the mutex
    bool Try(unsigned long timeout) SENNET_THREAD_SAFETY(try_acquire_capability(true));

    /// Undoes one Lock() or Try(). Does nothing on a thread that does not hold the mutex.
    void Unlock() SENNET_THREAD_SAFETY(release_capability());

    /// Frees what Create() has made. Does nothing on a mutex that is not created.
    virtual void Destroy();

    /// @cond internal
    struct Private; // the library's own operations, in src/
    /// @endcond

private:
    TCSemaphore m_Semaphore; ///< its count is 1 while the mutex is free, 0 while it is held
    /// The holder. Atomic because every thread compares it with itself without a lock. Only the
    /// holder writes its own value, so the comparison is right for the thread that makes it.
    std::atomic<GThread*> m_Owner{nullptr};
    int m_Depth = 0; ///< used by the holder only
};

} // namespace Velmora
