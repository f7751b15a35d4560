// SPDX-License-Identifier: MIT
// Lets a client's callback run until the object that was given it is destroyed.
#pragma once

#include <functional>
#include <memory>
#include <thread>
#include <utility>

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

// A client's callback behind a gate.
template <typename... Arguments>
class GatedCallback
{
public:
    explicit GatedCallback(std::function<void(Arguments...)> callback)
        : m_Callback(std::make_shared<const std::function<void(Arguments...)>>(std::move(callback)))
    {}

    void Run(Arguments... arguments)
    {
        m_Gate.Run([&] {
            const auto callback = m_Callback; // it may close the gate
            (*callback)(arguments...);
        });
    }

    // Called once. Also destroys the callback; if it runs on this thread, when it has returned.
    void Close()
    {
        m_Gate.Close();
        m_Callback.reset();
    }

private:
    CallbackGate m_Gate;
    // Used inside the gate, and after it is closed.
    std::shared_ptr<const std::function<void(Arguments...)>> m_Callback;
};

} // namespace Velmora::Internal
