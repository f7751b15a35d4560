// SPDX-License-Identifier: MIT
// The locks without contention, and how often they allocate.

#include <mutex>

#include <glib.h>

#include "Allocations.h"
#include "TCMutex.h"
#include "Table.h"

namespace Benchmarks {

namespace {

// Times the operation, and counts its allocations.
template <typename Operation>
void Measure(benchmark::State& state, const Operation& operation)
{
    const std::size_t before = AllocationsOfThread();
    for (auto _ : state) {
        operation();
    }
    const auto allocations = static_cast<double>(AllocationsOfThread() - before);
    state.counters[kAllocations] = {allocations, benchmark::Counter::kAvgIterations};
}

// Gives the four mutexes the same pair of operations.
class OurMutex
{
public:
    OurMutex() { m_Mutex.Create(); }
    ~OurMutex() { m_Mutex.Destroy(); }
    OurMutex(const OurMutex&) = delete;
    OurMutex& operator=(const OurMutex&) = delete;

    void lock() { m_Mutex.Lock(); }
    void unlock() { m_Mutex.Unlock(); }

private:
    Velmora::TCMutex m_Mutex;
};

class GlibMutex
{
public:
    GlibMutex() { g_rec_mutex_init(&m_Mutex); }
    ~GlibMutex() { g_rec_mutex_clear(&m_Mutex); }
    GlibMutex(const GlibMutex&) = delete;
    GlibMutex& operator=(const GlibMutex&) = delete;

    void lock() { g_rec_mutex_lock(&m_Mutex); }
    void unlock() { g_rec_mutex_unlock(&m_Mutex); }

private:
    GRecMutex m_Mutex;
};

template <typename Mutex>
void LockFree(benchmark::State& state)
{
    Mutex mutex;
    Measure(state, [&] {
        mutex.lock();
        mutex.unlock();
    });
}

template <typename Mutex>
void LockHeld(benchmark::State& state)
{
    Mutex mutex;
    const std::lock_guard<Mutex> held(mutex);
    Measure(state, [&] {
        mutex.lock();
        mutex.unlock();
    });
}

void TakeGiveOurs(benchmark::State& state)
{
    Velmora::TCSemaphore semaphore;
    semaphore.Create(1);
    Measure(state, [&] {
        semaphore.Take();
        semaphore.Give();
    });
    semaphore.Destroy();
}

// A counter as the GLib manual shows it.
struct PlainSemaphore
{
    PlainSemaphore()
    {
        g_mutex_init(&mutex);
        g_cond_init(&cond);
    }
    ~PlainSemaphore()
    {
        g_cond_clear(&cond);
        g_mutex_clear(&mutex);
    }
    PlainSemaphore(const PlainSemaphore&) = delete;
    PlainSemaphore& operator=(const PlainSemaphore&) = delete;

    GMutex mutex;
    GCond cond;
    int count = 1;
};

void TakeGivePlain(benchmark::State& state)
{
    PlainSemaphore semaphore;
    Measure(state, [&] {
        g_mutex_lock(&semaphore.mutex);
        while (semaphore.count < 1) {
            g_cond_wait(&semaphore.cond, &semaphore.mutex);
        }
        --semaphore.count;
        g_mutex_unlock(&semaphore.mutex);

        g_mutex_lock(&semaphore.mutex);
        ++semaphore.count;
        g_cond_signal(&semaphore.cond);
        g_mutex_unlock(&semaphore.mutex);
    });
}

} // namespace

void AddLockRows(Table& table)
{
    table.Add({"lock, unlock / GRecMutex", {}}, LockFree<OurMutex>, LockFree<GlibMutex>);
    table.Add({"lock, unlock / std::recursive_mutex", {}}, LockFree<OurMutex>,
              LockFree<std::recursive_mutex>);
    table.Add({"lock, unlock while held / GRecMutex", {}}, LockHeld<OurMutex>, LockHeld<GlibMutex>);
    table.Add({"lock, unlock while held / std::rec...", {}}, LockHeld<OurMutex>,
              LockHeld<std::recursive_mutex>);
    table.Add({"take, give / GMutex and GCond", {}}, TakeGiveOurs, TakeGivePlain);
}

} // namespace Benchmarks
