// std::mutex and its lock, as clang's -Wthread-safety understands them.
#pragma once

#include <condition_variable>
#include <mutex>

#include "TCMutex.h"

namespace Velmora::Internal {

class SENNET_THREAD_SAFETY(capability("mutex")) Mutex
{
    friend class Lock;
    std::mutex m_Mutex;
};

class SENNET_THREAD_SAFETY(scoped_lockable) Lock
{
public:
    explicit Lock(Mutex& mutex) SENNET_THREAD_SAFETY(acquire_capability(mutex))
        : m_Lock(mutex.m_Mutex)
    {}
    ~Lock() SENNET_THREAD_SAFETY(release_capability()) {}
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    // Unlocked meanwhile. Returns without a cause at times: what is waited for is asked in a loop.
    void Wait(std::condition_variable& condition) { condition.wait(m_Lock); }

private:
    std::unique_lock<std::mutex> m_Lock;
};

} // namespace Velmora::Internal
