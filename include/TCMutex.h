/// @file
/// The locks: a counting semaphore and a recursive mutex, both with timeouts in microseconds.
#pragma once

#include <atomic>
#include <cstdint>

#include <glib.h>

/// Tells clang's `-Wthread-safety` about a lock or what it guards, as in
/// `int m_Count SENNET_THREAD_SAFETY(guarded_by(m_Mutex));`; nothing to other compilers.
/// The analysis does not know recursive locks: it warns where one function locks a TCMutex twice.
#ifdef __clang__
#define SENNET_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define SENNET_THREAD_SAFETY(attribute)
#endif

#pragma GCC visibility push(default)

namespace Velmora {

/// The timeout that never ends, for every timeout of the locks and of TCEventIO::Ping(); as the
/// count of a TCAlarm, "for ever". Where `unsigned long` has 32 bits, all of them set mean the
/// same.
extern const std::uint64_t VELMORA_INFINITY;

class TCServer;

namespace Internal {
void AnswerSyncPair(void* pair);
}

/// A counting semaphore.
///
/// Order of use: construct, Create(), use from any threads, Destroy(), destruct. The constructor
/// allocates nothing and the destructor frees nothing. Between Create() and Destroy() every
/// operation may be called on any thread; Create() and Destroy() themselves must not overlap with
/// another operation. No operation but Create() allocates.
class __attribute__((visibility("default"))) TCSemaphore
{
public:
    TCSemaphore() = default;
    virtual ~TCSemaphore() = default;
    TCSemaphore(const TCSemaphore&) = delete;
    TCSemaphore& operator=(const TCSemaphore&) = delete;

    /// Makes the semaphore usable.
    /// @param initialCount how many Take() succeed before the first Give()
    /// @return true; exhausted memory passes through as std::bad_alloc
    bool Create(int initialCount);

    /// Blocks until it has taken one.
    void Take();

    /// Takes one, waiting if there is none.
    ///
    /// The timeout bounds the time between two wake-ups: a waiter that is woken while another
    /// thread takes the unit first waits for the whole timeout again.
    /// @param timeout microseconds on the monotonic clock, or VELMORA_INFINITY; 0 does not wait
    /// @return true when one was taken; false after the timeout, or, with an error line, on a
    ///         semaphore that is not created
    bool Try(unsigned long timeout);

    /// Adds one and wakes one waiter. The woken thread may destroy the semaphore: nothing here
    /// touches it after that thread can run.
    void Give();

    /// Frees what Create() made and writes an error line with an empty body, which is normal and
    /// which the stand-in for the log service hides. Does nothing on a semaphore that is not
    /// created.
    virtual void Destroy();

private:
    friend class TCMutex;
    friend void Internal::AnswerSyncPair(void* pair);

    [[gnu::visibility("hidden")]] bool m_WaitOnce(unsigned long timeout);
    [[gnu::visibility("hidden")]] bool m_AddOne();
    [[gnu::visibility("hidden")]] void m_GiveKept();
    [[gnu::visibility("hidden")]] bool m_AwaitUnit(unsigned long timeout);

    int m_Count;                    ///< guarded by *m_EventMutex
    GMutex* m_EventMutex = nullptr; ///< owned; null while not created
    GCond* m_EventCond = nullptr;   ///< owned; null while not created
    int m_Waiters = 0;              ///< threads inside a wait, guarded by *m_EventMutex
    int m_Woken = 0; ///< of these, at most so many are signalled and not back; same guard
};

/// A recursive mutex with a timeout.
///
/// Order of use: construct, Create(), use from any threads, Destroy(), destruct. The destructor
/// frees nothing.
class __attribute__((visibility("default"))) SENNET_THREAD_SAFETY(capability("mutex")) TCMutex
{
public:
    TCMutex() = default;
    virtual ~TCMutex() = default;
    TCMutex(const TCMutex&) = delete;
    TCMutex& operator=(const TCMutex&) = delete;

    /// Makes the mutex usable, and free.
    /// @return true; exhausted memory passes through as std::bad_alloc
    bool Create();

    /// Blocks until the calling thread holds the mutex. The holder may lock again; each Lock() and
    /// successful Try() needs an Unlock() of its own.
    void Lock() SENNET_THREAD_SAFETY(acquire_capability());

    /// Like Lock(), with a limit. The holder succeeds at once, whatever the timeout.
    /// @param timeout microseconds, or VELMORA_INFINITY; see TCSemaphore::Try()
    /// @return true when the calling thread holds the mutex
    bool Try(unsigned long timeout) SENNET_THREAD_SAFETY(try_acquire_capability(true));

    /// Undoes one Lock() or Try(). On a thread that does not hold the mutex it does nothing.
    void Unlock() SENNET_THREAD_SAFETY(release_capability());

    /// Frees what Create() made. Does nothing on a mutex that is not created.
    virtual void Destroy();

private:
    friend class TCServer;

    [[gnu::visibility("hidden")]] bool m_AwaitFree(unsigned long timeout);

    TCSemaphore m_Semaphore; ///< its count is 1 while the mutex is free, 0 while it is held
    /// The holder. Atomic because every thread compares it with itself without a lock; only the
    /// holder can have written the asking thread's own value, so that the answer is right for it.
    std::atomic<GThread*> m_Owner{nullptr};
    int m_Depth = 0; ///< touched by the holder only
};

} // namespace Velmora

#pragma GCC visibility pop
