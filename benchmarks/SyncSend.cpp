// SPDX-License-Identifier: MIT
// A synchronous send to the loop of another thread.

#include <optional>
#include <string>

#include "../src/GLibPtr.h"
#include "Processors.h"
#include "TCTask.h"
#include "Table.h"
#include "sennet/testing.h"

namespace Benchmarks {

namespace {

using Velmora::Internal::ContextPtr;

constexpr unsigned long kEventId = 1000;

class PinnedTask : public Velmora::TCTask
{
public:
    explicit PinnedTask(int processor) : TCTask("receiver"), m_Processor(processor) {}

protected:
    bool t_OnEvent(const Velmora::TCEvent* event) override
    {
        return event->id == kEventId || TCTask::t_OnEvent(event);
    }
    void t_Main() override
    {
        const Pinned pinned(m_Processor);
        TCTask::t_Main();
    }

private:
    int m_Processor;
};

void SendOurs(benchmark::State& state, int sender, int receiver)
{
    const Pinned pinned(sender);
    PinnedTask task(receiver);
    if (!task.Create("receiver")) {
        g_error("no task");
    }
    Velmora::TCEvent event;
    event.receiver = &task;
    event.id = kEventId;
    for (auto _ : state) {
        if (!Velmora::SendSyncEvent(&event)) {
            g_error("an event was refused");
        }
    }
    task.Destroy();
}

// One call that waits, as the GLib manual shows it for GCond.
class PlainCall
{
public:
    PlainCall()
    {
        g_mutex_init(&m_Mutex);
        g_cond_init(&m_Cond);
    }
    ~PlainCall()
    {
        g_cond_clear(&m_Cond);
        g_mutex_clear(&m_Mutex);
    }
    PlainCall(const PlainCall&) = delete;
    PlainCall& operator=(const PlainCall&) = delete;

    void Wait()
    {
        g_mutex_lock(&m_Mutex);
        while (!m_Done) {
            g_cond_wait(&m_Cond, &m_Mutex);
        }
        g_mutex_unlock(&m_Mutex);
    }
    void Finish()
    {
        g_mutex_lock(&m_Mutex);
        m_Done = true;
        g_cond_signal(&m_Cond);
        g_mutex_unlock(&m_Mutex);
    }

private:
    GMutex m_Mutex;
    GCond m_Cond;
    bool m_Done = false;
};

void SendPlain(benchmark::State& state, int sender, int receiver)
{
    const Pinned pinned(sender);
    const ContextPtr context(g_main_context_new());
    const Velmora::Testing::LoopThread loop(context.get());
    loop.Run([receiver] { Pin(receiver); });
    for (auto _ : state) {
        PlainCall call;
        g_main_context_invoke_full(
            context.get(), G_PRIORITY_DEFAULT,
            [](gpointer data) -> gboolean {
                static_cast<PlainCall*>(data)->Finish();
                return G_SOURCE_REMOVE;
            },
            &call, nullptr);
        call.Wait();
    }
}

void AddRow(Table& table, const std::string& title, std::optional<double> target, int sender,
            int receiver)
{
    table.Add(
        {title, target}, [=](benchmark::State& state) { SendOurs(state, sender, receiver); },
        [=](benchmark::State& state) { SendPlain(state, sender, receiver); });
}

} // namespace

void AddSyncSendRows(Table& table)
{
    const auto processors = Processors();
    AddRow(table, "synchronous send, one processor", 1.2, processors[0], processors[0]);
    if (processors.size() > 1) {
        AddRow(table, "synchronous send, two processors", std::nullopt, processors[0],
               processors[1]);
    }
}

} // namespace Benchmarks
