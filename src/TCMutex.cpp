// SPDX-License-Identifier: MIT
#include "TCMutex.h"

#include <memory>

#include "Check.h"
#include "Locks.h"
#include "TCLog.h"
#include "TCMutexPrivate.h"

namespace Velmora {

using namespace Internal;

const std::uint64_t VELMORA_INFINITY = ~std::uint64_t{0};

namespace {

// VELMORA_INFINITY in the type of a timeout.
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

bool TCSemaphore::Private::WaitOnce(TCSemaphore& semaphore, unsigned long timeout)
{
    bool signalled = true;
    ++semaphore.m_Waiters;
    if (timeout == kForEver) {
        g_cond_wait(semaphore.m_EventCond, semaphore.m_EventMutex);
    } else {
        signalled = g_cond_wait_until(semaphore.m_EventCond, semaphore.m_EventMutex,
                                      DeadlineAfter(timeout)) != 0;
    }
    --semaphore.m_Waiters;
    if (semaphore.m_Woken > 0) {
        --semaphore.m_Woken;
    }
    SENNET_CHECK(semaphore.m_Woken <= semaphore.m_Waiters);
    return signalled;
}

void TCSemaphore::Take()
{
    const Lock lock(*m_EventMutex);
    while (m_Count < 1) {
        Private::WaitOnce(*this, kForEver);
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
    const Lock lock(*m_EventMutex);
    while (m_Count < 1) {
        if (!Private::WaitOnce(*this, timeout)) {
            return false;
        }
    }
    --m_Count;
    return true;
}

// A signal is a system call. A waiter that was signalled for an earlier unit and has not returned
// yet will find this one, too.
bool TCSemaphore::Private::AddOne(TCSemaphore& semaphore)
{
    ++semaphore.m_Count;
    SENNET_CHECK(semaphore.m_Woken >= 0 && semaphore.m_Woken <= semaphore.m_Waiters);
    if (semaphore.m_Waiters <= semaphore.m_Woken) {
        return false;
    }
    ++semaphore.m_Woken;
    return true;
}

void TCSemaphore::Give()
{
    const Lock lock(*m_EventMutex);
    if (Private::AddOne(*this)) {
        // Under the lock: a waiter that finds the unit may destroy this object as soon as it has
        // the lock.
        g_cond_signal(m_EventCond);
    }
}

void TCSemaphore::Private::GiveKept(TCSemaphore& semaphore)
{
    bool signal = false;
    {
        const Lock lock(*semaphore.m_EventMutex);
        signal = AddOne(semaphore);
    }
    if (signal) {
        g_cond_signal(semaphore.m_EventCond);
    }
}

bool TCSemaphore::Private::AwaitUnit(TCSemaphore& semaphore, unsigned long timeout)
{
    const Lock lock(*semaphore.m_EventMutex);
    while (semaphore.m_Count < 1) {
        if (!WaitOnce(semaphore, timeout)) {
            return false;
        }
    }
    if (semaphore.m_Waiters > semaphore.m_Woken) { // perhaps only this waiter was signalled
        ++semaphore.m_Woken;
        g_cond_signal(semaphore.m_EventCond);
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

bool TCMutex::Private::LockAgain(TCMutex& mutex, GThread* self)
{
    if (mutex.m_Owner.load(std::memory_order_relaxed) != self) {
        return false;
    }
    SENNET_CHECK(mutex.m_Depth > 0);
    ++mutex.m_Depth;
    return true;
}

void TCMutex::Private::NoteOwner(TCMutex& mutex, GThread* self)
{
    SENNET_CHECK(mutex.m_Owner.load(std::memory_order_relaxed) == nullptr);
    mutex.m_Owner.store(self, std::memory_order_relaxed);
    mutex.m_Depth = 1;
}

void TCMutex::Lock()
{
    GThread* const self = g_thread_self();
    if (!Private::LockAgain(*this, self)) {
        m_Semaphore.Take();
        Private::NoteOwner(*this, self);
    }
}

bool TCMutex::Try(unsigned long timeout)
{
    GThread* const self = g_thread_self();
    if (Private::LockAgain(*this, self)) {
        return true;
    }
    if (!m_Semaphore.Try(timeout)) {
        return false;
    }
    Private::NoteOwner(*this, self);
    return true;
}

void TCMutex::Unlock()
{
    if (m_Owner.load(std::memory_order_relaxed) != g_thread_self()) {
        return;
    }
    SENNET_CHECK(m_Depth > 0);
    if (--m_Depth > 0) {
        return;
    }
    m_Owner.store(nullptr, std::memory_order_relaxed);
    m_Semaphore.Give();
}

void TCMutex::Destroy()
{
    m_Semaphore.Destroy();
}

} // namespace Velmora
