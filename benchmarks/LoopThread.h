// The plain side's counterpart of a task: a thread that runs a GLib main loop. Also what pins
// threads to processors.
#pragma once

#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <glib.h>
#include <sched.h>

namespace Benchmarks {

struct ContextRelease
{
    void operator()(GMainContext* context) const { g_main_context_unref(context); }
};
struct LoopRelease
{
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
};
using ContextPtr = std::unique_ptr<GMainContext, ContextRelease>;
using LoopPtr = std::unique_ptr<GMainLoop, LoopRelease>;

class LoopThread
{
public:
    explicit LoopThread(std::optional<int> processor = std::nullopt);
    ~LoopThread(); // what is queued is dispatched first
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    GMainContext* Context() const { return m_Context.get(); }

private:
    ContextPtr m_Context{g_main_context_new()};
    LoopPtr m_Loop{g_main_loop_new(m_Context.get(), FALSE)};
    std::thread m_Thread;
};

// The processors that this process may run on.
std::vector<int> Processors();

// Pins the calling thread for a scope.
class Pinned
{
public:
    explicit Pinned(int processor);
    ~Pinned();
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;

private:
    cpu_set_t m_Before;
};

} // namespace Benchmarks
