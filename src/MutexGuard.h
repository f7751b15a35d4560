// Holds a TCMutex for a scope.
#pragma once

#include <mutex>

#include "TCMutex.h"

namespace Velmora::Internal {

class MutexGuard
{
public:
    explicit MutexGuard(TCMutex& mutex) : m_Mutex(mutex) { m_Mutex.Lock(); }
    // For a mutex that the thread holds already, after a successful Try.
    MutexGuard(TCMutex& mutex, std::adopt_lock_t) : m_Mutex(mutex) {}
    ~MutexGuard() { m_Mutex.Unlock(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    TCMutex& m_Mutex;
};

} // namespace Velmora::Internal
