// SPDX-License-Identifier: MIT
#include "extra/OnContext.h"

#include <memory>
#include <utility>

#include "Crossing.h"
#include "GLibPtr.h"
#include "Locks.h"
#include "TCLog.h"

namespace Velmora::Internal {

namespace {

struct Posted
{
    std::function<void()> callable;
    Crossing crossing;

    static gboolean Run(void* data)
    {
        auto* const posted = static_cast<Posted*>(data);
        posted->crossing.Arrive();
        posted->callable();
        return G_SOURCE_REMOVE;
    }
    static void Free(void* data)
    {
        const std::unique_ptr<Posted> posted(static_cast<Posted*>(data));
        posted->crossing.Arrive();
    }
};

void* RunThread(void* data)
{
    const LoopPtr loop(g_main_loop_new(static_cast<GMainContext*>(data), FALSE));
    g_main_context_push_thread_default(static_cast<GMainContext*>(data));
    g_main_loop_run(loop.get());
    return nullptr;
}

// A thread that starts with its first use and never ends.
class LazyThread
{
public:
    explicit LazyThread(const char* name) : m_Name(name) {}

    GMainContext* Context()
    {
        const Lock lock(m_Mutex);
        if (m_Running != nullptr) {
            return m_Running;
        }
        ContextPtr context(g_main_context_new());
        GError* raw = nullptr;
        GThread* const thread = g_thread_try_new(m_Name, &RunThread, context.get(), &raw);
        if (const ErrorPtr error(raw); thread == nullptr) {
            VELMORA_LOGE("Thread created fail,%s", error->message);
            return nullptr;
        }
        g_thread_unref(thread);
        m_Running = context.release(); // the thread's
        return m_Running;
    }

private:
    const char* const m_Name;
    Mutex m_Mutex;
    GMainContext* m_Running SENNET_THREAD_SAFETY(guarded_by(m_Mutex)) = nullptr;
};

bool RunOn(GMainContext* context, std::function<void()> callable)
{
    if (context == nullptr) {
        return false;
    }
    PostToContext(context, std::move(callable));
    return true;
}

} // namespace

void PostToContext(GMainContext* context, std::function<void()> callable)
{
    auto posted = std::make_unique<Posted>();
    posted->callable = std::move(callable);
    posted->crossing.Leave();
    GSource* const source = g_idle_source_new();
    g_source_set_static_name(source, "sennet-posted");
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, &Posted::Run, posted.release(), &Posted::Free);
    g_source_attach(source, context);
    g_source_unref(source);
}

GMainContext* LibraryThread::Context()
{
    static auto& thread = *new LazyThread("sennet"); // never destroyed, since it is still running
    return thread.Context();
}

bool LibraryThread::Run(std::function<void()> callable)
{
    return RunOn(Context(), std::move(callable));
}

bool LibraryThread::IsCurrent()
{
    GMainContext* const context = Context();
    return context != nullptr && g_main_context_is_owner(context) != 0;
}

bool WaitingThread::Run(std::function<void()> callable)
{
    static auto& thread = *new LazyThread("sennet-waiting");
    return RunOn(thread.Context(), std::move(callable));
}

} // namespace Velmora::Internal
