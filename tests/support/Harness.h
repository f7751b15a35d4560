// SPDX-License-Identifier: MIT
// Shared by the tests of the event core.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "../../src/GLibPtr.h"
#include "LogCapture.h"
#include "ProcessState.h"
#include "sennet.h"

// A loop that runs only as far as the test iterates it.
class Loop
{
public:
    GMainContext* Context() const { return m_Context.get(); }
    GMainLoop* Get() const { return m_Loop.get(); }
    bool Step() const { return g_main_context_iteration(Context(), FALSE) != 0; }
    void Drain() const
    {
        while (Step()) {
        }
    }

private:
    Velmora::Internal::ContextPtr m_Context{g_main_context_new()};
    Velmora::Internal::LoopPtr m_Loop{g_main_loop_new(m_Context.get(), FALSE)};
};

// Records what reaches it, as "e7" for OnEvent and "c7" for OnClear with id 7, on top of Base.
template <typename Base>
class Noting : public Base
{
public:
    using Base::Base;

    std::string seen; // used on the loop's thread only
    std::function<void(const Velmora::TCEvent&)> onEvent;
    std::function<void(const Velmora::TCEvent&)> onClear;

    using Base::m_EventIO;

protected:
    bool t_OnEvent(const Velmora::TCEvent* event) override
    {
        seen += "e" + std::to_string(event->id) + " ";
        if (onEvent) {
            onEvent(*event);
        }
        return Base::t_OnEvent(event);
    }
    void t_Clear(Velmora::TCEvent* event) override
    {
        seen += "c" + std::to_string(event->id) + " ";
        if (onClear) {
            onClear(*event);
        }
        Base::t_Clear(event);
    }
};

class Queue : public Noting<Velmora::TCEventIO>
{
public:
    Queue() : Noting("queue") {}
    using TCEventIO::m_InterIOWatch;
    using TCEventIO::m_PipeFileDes;
    using TCEventIO::m_QueueMutex;
    bool initResult = true;

protected:
    bool t_Init() override { return initResult; }
};

using Task = Noting<Velmora::TCTask>;

inline Velmora::TCEvent Event(Velmora::TCHandler* receiver, unsigned long id, void* param = nullptr)
{
    Velmora::TCEvent event;
    event.receiver = receiver;
    event.id = id;
    event.param.p = param;
    return event;
}

inline bool Send(Velmora::TCHandler* receiver, unsigned long id, void* param = nullptr)
{
    Velmora::TCEvent event = Event(receiver, id, param);
    return Velmora::SendEvent(&event);
}

inline bool SendUrgent(Velmora::TCHandler* receiver, unsigned long id)
{
    Velmora::TCEvent event = Event(receiver, id);
    return Velmora::SendUrgentEvent(&event);
}

// Waits until another thread makes the condition true. After the time limit it ends the process,
// as nothing could unwind the threads that the test has started.
template <typename Condition>
void Await(Condition condition, const char* file = __builtin_FILE(), int line = __builtin_LINE())
{
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(AWAIT_SECONDS);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) {
            std::fprintf(stderr, "%s:%d: the condition is still false after %d s\n", file, line,
                         AWAIT_SECONDS);
            std::abort();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}
