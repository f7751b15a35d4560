#include <memory>

#include "TCEventIO.h"
#include "TCLog.h"
#include "TCMutex.h"

namespace Velmora {

const std::uint64_t VELMORA_INFINITY = ~std::uint64_t{0};

namespace {

class NativeGuard
{
public:
    explicit NativeGuard(GMutex* mutex) : m_Mutex(mutex) { g_mutex_lock(m_Mutex); }
    ~NativeGuard() { g_mutex_unlock(m_Mutex); }
    NativeGuard(const NativeGuard&) = delete;
    NativeGuard& operator=(const NativeGuard&) = delete;

private:
    GMutex* m_Mutex;
};

// As the timeouts have it.
const auto kForEver = static_cast<unsigned long>(VELMORA_INFINITY);

gint64 DeadlineAfter(std::uint64_t timeout)
{
    const gint64 now = g_get_monotonic_time();
    const auto left = static_cast<std::uint64_t>(G_MAXINT64 - now);
    return timeout < left ? now + static_cast<gint64>(timeout) : G_MAXINT64;
}

} // namespace

bool TCSemaphore::Create(int initialCount)
{
    auto mutex = std::make_unique<GMutex>();
    auto cond = std::make_unique<GCond>();
    g_mutex_init(mutex.get());
    g_cond_init(cond.get());

    m_Count = initialCount;
    m_EventMutex = mutex.release(); // Destroy deletes both: the destructor must not
    m_EventCond = cond.release();
    return true;
}

// Waits until signalled, or for the timeout, and tells which it was. The caller holds the lock.
bool TCSemaphore::m_WaitOnce(unsigned long timeout)
{
    bool signalled = true;
    ++m_Waiters;
    if (timeout == kForEver) {
        g_cond_wait(m_EventCond, m_EventMutex);
    } else {
        signalled = g_cond_wait_until(m_EventCond, m_EventMutex, DeadlineAfter(timeout)) != 0;
    }
    --m_Waiters;
    if (m_Woken > 0) {
        --m_Woken;
    }
    return signalled;
}

void TCSemaphore::Take()
{
    const NativeGuard guard(m_EventMutex);
    while (m_Count < 1) {
        m_WaitOnce(kForEver);
    }
    --m_Count;
}

bool TCSemaphore::Try(unsigned long timeout)
{
    if (timeout == kForEver) {
        Take();
        return true;
    }
    if (m_EventMutex == nullptr) {
        VELMORA_LOGE("m_EventMutex is NULL");
        return false;
    }
    const NativeGuard guard(m_EventMutex);
    while (m_Count < 1) {
        if (!m_WaitOnce(timeout)) {
            return false;
        }
    }
    --m_Count;
    return true;
}

// Counts one up and tells whether to signal: a signal is a system call, and a waiter that was
// signalled for an earlier unit, and has not come to look yet, will find this one. The caller holds
// the lock.
bool TCSemaphore::m_AddOne()
{
    ++m_Count;
    if (m_Waiters <= m_Woken) {
        return false;
    }
    ++m_Woken;
    return true;
}

void TCSemaphore::Give()
{
    const NativeGuard guard(m_EventMutex);
    if (m_AddOne()) {
        // Under the lock: a waiter that finds the unit may destroy this object as soon as it has
        // the lock.
        g_cond_signal(m_EventCond);
    }
}

// Give for a semaphore that only the calling thread will free. The waiter is woken when it can have
// the lock: on one processor it would otherwise run at once, find the lock taken, and sleep again.
void TCSemaphore::m_GiveKept()
{
    bool signal = false;
    {
        const NativeGuard guard(m_EventMutex);
        signal = m_AddOne();
    }
    if (signal) {
        g_cond_signal(m_EventCond);
    }
}

// Waits like Try, but takes nothing.
bool TCSemaphore::m_AwaitUnit(unsigned long timeout)
{
    const NativeGuard guard(m_EventMutex);
    while (m_Count < 1) {
        if (!m_WaitOnce(timeout)) {
            return false;
        }
    }
    if (m_Waiters > m_Woken) { // the unit may have been announced to this waiter alone
        ++m_Woken;
        g_cond_signal(m_EventCond);
    }
    return true;
}

void TCSemaphore::Destroy()
{
    if (m_EventMutex == nullptr) {
        return;
    }
    VELMORA_LOGE("");
    g_mutex_clear(m_EventMutex);
    g_cond_clear(m_EventCond);
    delete m_EventMutex; // made by Create
    delete m_EventCond;
    m_EventMutex = nullptr;
    m_EventCond = nullptr;
}

bool TCMutex::Create()
{
    if (!m_Semaphore.Create(1)) {
        return false;
    }
    m_Owner = nullptr;
    return true;
}

void TCMutex::Lock()
{
    GThread* const self = g_thread_self();
    if (m_Owner.load(std::memory_order_relaxed) == self) {
        ++m_Depth;
        return;
    }
    m_Semaphore.Take();
    m_Owner.store(self, std::memory_order_relaxed);
    m_Depth = 1;
}

bool TCMutex::Try(unsigned long timeout)
{
    GThread* const self = g_thread_self();
    if (m_Owner.load(std::memory_order_relaxed) == self) {
        ++m_Depth;
        return true;
    }
    if (!m_Semaphore.Try(timeout)) {
        return false;
    }
    m_Owner.store(self, std::memory_order_relaxed);
    m_Depth = 1;
    return true;
}

void TCMutex::Unlock()
{
    if (m_Owner.load(std::memory_order_relaxed) != g_thread_self()) {
        return;
    }
    if (--m_Depth > 0) {
        return;
    }
    m_Owner.store(nullptr, std::memory_order_relaxed);
    m_Semaphore.Give();
}

// Waits until no thread holds the mutex, without taking it. Another one may be faster then.
bool TCMutex::m_AwaitFree(unsigned long timeout)
{
    return m_Semaphore.m_AwaitUnit(timeout);
}

void TCMutex::Destroy()
{
    if (m_Semaphore.m_EventMutex != nullptr) {
        m_Semaphore.Destroy();
    }
}

bool TCHandler::t_OnEvent(const TCEvent* /*event*/)
{
    return false;
}

void TCHandler::t_Clear(TCEvent* /*event*/) {}

} // namespace Velmora
