// SPDX-License-Identifier: MIT
// Lets a client's callback run until the object that was given it is destroyed.
#pragma once

#include <thread>

#include "Locks.h"

namespace Velmora::Internal {

class CallbackGate
{
public:
    // Calls the function unless the gate is closed. The calls of one gate come one after the other,
    // but a callback that runs a main loop may be entered again.
    template <typename Function>
    void Run(const Function& function)
    {
        {
            const Lock lock(m_Mutex);
            if (m_Closed) {
                return;
            }
            m_Runner = std::this_thread::get_id();
            ++m_Depth;
        }
        const Leaving leaving{*this};
        function();
    }

    // From now on no call begins. Waits for one on another thread.
    void Close()
    {
        Lock lock(m_Mutex);
        m_Closed = true;
        while (m_Depth > 0 && m_Runner != std::this_thread::get_id()) {
            lock.Wait(m_Left);
        }
    }

private:
    struct Leaving
    {
        ~Leaving() // also if the callback throws
        {
            const Lock lock(gate.m_Mutex);
            if (--gate.m_Depth == 0) {
                gate.m_Left.notify_all();
            }
        }
        CallbackGate& gate;
    };

    Mutex m_Mutex;
    std::condition_variable m_Left;
    std::thread::id m_Runner SENNET_THREAD_SAFETY(guarded_by(m_Mutex)); // if m_Depth is not 0
    unsigned int m_Depth SENNET_THREAD_SAFETY(guarded_by(m_Mutex)) = 0;
    bool m_Closed SENNET_THREAD_SAFETY(guarded_by(m_Mutex)) = false;
};

} // namespace Velmora::Internal
