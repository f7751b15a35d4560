// SPDX-License-Identifier: MIT
// A thread that runs a GLib main loop.
#pragma once

#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "../src/GLibPtr.h"

namespace Support {

class LoopThread
{
public:
    // Runs a loop on the context, null for the default one. Returns when the loop runs.
    explicit LoopThread(GMainContext* context = nullptr)
        : m_Loop(g_main_loop_new(context, FALSE)),
          m_Thread([this] { g_main_loop_run(m_Loop.get()); })
    {
        Run([] {}); // a quit before the loop runs would be lost
    }
    ~LoopThread() // dispatches first what is queued
    {
        Run([this] { g_main_loop_quit(m_Loop.get()); });
        m_Thread.join();
    }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    // Runs the function on the thread, after what is queued there, and waits for its end. Call
    // this on another thread.
    void Run(std::function<void()> function) const
    {
        auto* const call = new Call{std::packaged_task<void()>(std::move(function))};
        const std::future<void> done = call->task.get_future();
        GSource* const source = g_idle_source_new(); // owns the call
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, &Call::Run, call, &Call::Free);
        call->ready = true;
        g_source_attach(source, g_main_loop_get_context(m_Loop.get()));
        g_source_unref(source);
        done.wait();
    }

private:
    struct Call
    {
        std::packaged_task<void()> task;
        std::atomic<bool> ready{false}; // shows ThreadSanitizer the order that GLib keeps inside

        static gboolean Run(gpointer data)
        {
            auto* const call = static_cast<Call*>(data);
            if (call->ready) {
                call->task();
            }
            return G_SOURCE_REMOVE;
        }
        static void Free(gpointer data) { delete static_cast<Call*>(data); }
    };

    Velmora::Internal::LoopPtr m_Loop;
    std::thread m_Thread;
};

} // namespace Support
