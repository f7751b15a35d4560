// Holds a TCMutex for a scope.
#pragma once

#include <mutex>

#include "TCMutex.h"

namespace Velmora::Internal {

class SENNET_THREAD_SAFETY(scoped_lockable) MutexGuard
{
public:
    explicit MutexGuard(TCMutex& mutex) SENNET_THREAD_SAFETY(acquire_capability(mutex))
        : m_Mutex(mutex)
    {
        m_Mutex.Lock();
    }
    // For a mutex that the thread holds already, after a successful Try.
    MutexGuard(TCMutex& mutex, std::adopt_lock_t) SENNET_THREAD_SAFETY(requires_capability(mutex))
        : m_Mutex(mutex)
    {}
    ~MutexGuard() SENNET_THREAD_SAFETY(release_capability()) { m_Mutex.Unlock(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    TCMutex& m_Mutex;
};

} // namespace Velmora::Internal
