// SPDX-License-Identifier: MIT
// Starts and stops a timer. The loop of the context does not run: both sides would wake its thread,
// and the cost of that would hide the difference.

#include "../src/GLibPtr.h"
#include "TCAlarm.h"
#include "Table.h"

namespace Benchmarks {

namespace {

constexpr unsigned int kInterval = 60000; // milliseconds

// A queue on a loop that never runs.
class IdleQueue : public Velmora::TCEventIO
{
public:
    IdleQueue() : TCEventIO("idle")
    {
        if (!Init(m_Loop.get())) {
            g_error("no queue");
        }
    }
    ~IdleQueue() override { Final(); }
    IdleQueue(const IdleQueue&) = delete;
    IdleQueue& operator=(const IdleQueue&) = delete;

    GMainContext* Context() const { return m_Context.get(); }

private:
    Velmora::Internal::ContextPtr m_Context{g_main_context_new()};
    Velmora::Internal::LoopPtr m_Loop{g_main_loop_new(m_Context.get(), FALSE)};
};

void StartStopOurs(benchmark::State& state)
{
    IdleQueue queue;
    Velmora::TCAlarm alarm;
    for (auto _ : state) {
        alarm.Create(&queue, kInterval, static_cast<unsigned long>(Velmora::VELMORA_INFINITY));
        alarm.SetAlarmCallback([](void*) { return true; }, nullptr);
        alarm.Destroy();
    }
}

void StartStopPlain(benchmark::State& state)
{
    const IdleQueue queue;
    for (auto _ : state) {
        GSource* const source = g_timeout_source_new(kInterval);
        g_source_set_callback(
            source, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
        g_source_attach(source, queue.Context());
        g_source_destroy(source);
        g_source_unref(source);
    }
}

} // namespace

void AddAlarmRows(Table& table)
{
    table.Add({"alarm, start and stop", {}}, StartStopOurs, StartStopPlain);
}

} // namespace Benchmarks
