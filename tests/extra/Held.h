// SPDX-License-Identifier: MIT
// Holds back a queue or a loop.
#pragma once

#include <future>
#include <thread>

#include "TCRun.h"
#include "sennet/testing.h"

// Nothing of the queue or the loop is dispatched between the constructor and Release().
class Held
{
public:
    explicit Held(Velmora::TCEventIO* queue)
    {
        Velmora::Run(queue, [this] { Block(); });
        m_Begun.get_future().wait();
    }
    explicit Held(const Velmora::Testing::LoopThread& loop)
        : m_Caller([this, &loop] { loop.Run([this] { Block(); }); })
    {
        m_Begun.get_future().wait();
    }
    ~Held() { Release(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

    void Release()
    {
        if (!m_Released) {
            m_Released = true;
            m_Go.set_value();
            m_Gone.get_future().wait();
        }
        if (m_Caller.joinable()) {
            m_Caller.join();
        }
    }

private:
    void Block()
    {
        m_Begun.set_value();
        m_Go.get_future().wait();
        m_Gone.set_value();
    }

    bool m_Released = false;
    std::promise<void> m_Begun, m_Go, m_Gone;
    std::thread m_Caller;
};
