// SPDX-License-Identifier: MIT
// Sends events from other threads, timed from the send to the end of the handler.

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "../src/GLibPtr.h"
#include "TCTask.h"
#include "Table.h"
#include "sennet/testing.h"

namespace Benchmarks {

namespace {

using Velmora::Internal::ContextPtr;

constexpr long kEvents = 200000;
constexpr long kMaxOutstanding = 50000; // a queue can hold 61,440
constexpr unsigned long kEventId = 1000;
constexpr char kText[] = "a plain text of thirty-two bytes";
static_assert(sizeof kText - 1 == 32);

// Keeps senders from running too far ahead of the consumer.
class Window
{
public:
    void Enter()
    {
        while (m_Outstanding.fetch_add(1) >= kMaxOutstanding) {
            m_Outstanding.fetch_sub(1);
            Pause();
        }
    }
    void Leave() { m_Outstanding.fetch_sub(1); }
    void WaitUntilEmpty()
    {
        while (m_Outstanding > 0) {
            Pause();
        }
    }

private:
    // Sleeps: a busy wait could take the processor that the consumer needs.
    static void Pause() { std::this_thread::sleep_for(std::chrono::microseconds(50)); }

    std::atomic<long> m_Outstanding{0};
};

class Consumer : public Velmora::TCTask
{
public:
    explicit Consumer(Window& window) : TCTask("consumer"), m_Window(window) {}

protected:
    bool t_OnEvent(const Velmora::TCEvent* event) override
    {
        if (event->id != kEventId) {
            return TCTask::t_OnEvent(event);
        }
        m_Window.Leave();
        return true;
    }

private:
    Window& m_Window;
};

struct PlainEvent
{
    unsigned long id;
    std::string text;
    Window* window;
};

gboolean OnPlainEvent(gpointer data)
{
    const auto* const event = static_cast<PlainEvent*>(data);
    if (event->id == kEventId) {
        event->window->Leave();
    }
    return G_SOURCE_REMOVE;
}

// Divides one batch of events among the producers, and waits until all are handled.
template <typename Produce>
void RunBatch(long producers, Window& window, const Produce& produce)
{
    std::vector<std::thread> threads;
    for (long i = 0; i < producers; ++i) {
        const long share = kEvents * (i + 1) / producers - kEvents * i / producers;
        threads.emplace_back(produce, share);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    window.WaitUntilEmpty();
}

void PostOurs(benchmark::State& state, long producers)
{
    Window window;
    Consumer consumer(window);
    if (!consumer.Create("consumer")) {
        g_error("no task");
    }
    while (state.KeepRunningBatch(kEvents)) {
        RunBatch(producers, window, [&](long count) {
            Velmora::TCEvent event; // can be sent repeatedly: the queue copies it
            event.receiver = &consumer;
            event.id = kEventId;
            event.data.SetMessage(kText);
            for (long i = 0; i < count; ++i) {
                window.Enter();
                if (!Velmora::SendEvent(&event)) {
                    g_error("an event was refused");
                }
            }
        });
    }
    consumer.Destroy();
}

void PostPlain(benchmark::State& state, long producers)
{
    Window window;
    const ContextPtr context(g_main_context_new());
    const Velmora::Testing::LoopThread loop(context.get());
    while (state.KeepRunningBatch(kEvents)) {
        RunBatch(producers, window, [&](long count) {
            for (long i = 0; i < count; ++i) {
                window.Enter();
                g_main_context_invoke_full(
                    context.get(), G_PRIORITY_DEFAULT, OnPlainEvent,
                    new PlainEvent{kEventId, kText, &window},
                    [](gpointer data) { delete static_cast<PlainEvent*>(data); });
            }
        });
    }
}

} // namespace

void AddPostRows(Table& table)
{
    for (const long producers : {1L, 3L}) {
        const std::string title =
            "post, " + std::to_string(producers) + (producers == 1 ? " producer" : " producers");
        table.Add(
            {title, 1.6, kEvents},
            [producers](benchmark::State& state) { PostOurs(state, producers); },
            [producers](benchmark::State& state) { PostPlain(state, producers); });
    }
}

} // namespace Benchmarks
