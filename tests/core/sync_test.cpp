// SPDX-License-Identifier: MIT
// Synchronous sends and pings.
#include "Harness.h"

using namespace Velmora;

namespace {

class SyncTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ForgetLog();
        ASSERT_TRUE(task.Create("task"));
        ASSERT_TRUE(idle.Init(loop.Get()));
    }
    void TearDown() override
    {
        task.Destroy();
        idle.Final();
    }

    // Returns when the idle queue has one more event.
    std::thread Start(std::function<void()> send)
    {
        const unsigned int queued = idle.CountEvent();
        std::thread sender(std::move(send));
        Await([&] { return idle.CountEvent() > queued; });
        return sender;
    }
    Task task{"task"};
    Loop loop;
    Queue idle; // its loop runs only when the test iterates it
};

} // namespace

TEST_F(SyncTest, HandlerHasFinishedWithTheCallersOwnEvent)
{
    TCEvent event = Event(&task, 7);
    const TCEvent* handled = nullptr;
    GThread* thread = nullptr;
    task.onEvent = [&](const TCEvent& seen) {
        handled = &seen;
        thread = g_thread_self();
    };
    for (int i = 0; i < 2000; ++i) { // each time the pair is freed, even if a thread still uses it
        handled = nullptr;
        ASSERT_TRUE(SendSyncEvent(&event));
        ASSERT_EQ(handled, &event);
    }
    EXPECT_NE(thread, g_thread_self());
    task.Destroy();
    EXPECT_EQ(CountLog(kError, ""), 4000);
    EXPECT_EQ(task.seen.find('c'), task.seen.find("c1")); // OnClear runs for the exit event alone
}

TEST_F(SyncTest, EntryQueuedByPointerIsDeliveredThoughDeletedOrWithoutPair)
{
    TCEvent waiting = Event(&idle, 7), event = Event(&idle, 8);
    std::thread sender = Start([&] { EXPECT_TRUE(SendSyncEvent(&waiting)); });
    EXPECT_EQ(idle.DeleteEvent(nullptr), 1);
    event.sync = true; // though no sender waits
    EXPECT_TRUE(SendEvent(&event));
    loop.Drain();
    sender.join();
    EXPECT_EQ(idle.seen, "e7 e8 ");
    EXPECT_EQ(CountLog(kError, "param.p should not be NULL!"), 1);
}

TEST_F(SyncTest, HandlerThatTouchesThePairStillReleasesItsSender)
{
    TCEvent event = Event(&task, 7);
    task.onEvent = [&](const TCEvent&) { event.param.p = nullptr; };
    EXPECT_TRUE(SendSyncEvent(&event));
    EXPECT_EQ(CountLog(kError, "param.p should not be NULL!"), 1);

    TCScope<Task> other("other");
    task.onEvent = [&](const TCEvent&) {
        event.receiver = &*other;
        EXPECT_TRUE(SendSyncEvent(&event));
    };
    event.receiver = &task;
    EXPECT_TRUE(SendSyncEvent(&event));
    task.onEvent = nullptr; // before the exit event
    EXPECT_EQ(other->seen, "e7 ");
}

TEST_F(SyncTest, PingTellsALivingLoopFromAStoppedOne)
{
    EXPECT_FALSE(TCEventIO::Ping(nullptr, 0));
    EXPECT_EQ(CountLog(kError, "*"), 0);
    EXPECT_TRUE(TCEventIO::Ping(&task, static_cast<unsigned long>(VELMORA_INFINITY)));
    for (const unsigned long timeout : {0UL, 5000UL}) {
        const gint64 start = g_get_monotonic_time();
        EXPECT_FALSE(TCEventIO::Ping(&idle, timeout));
        EXPECT_GE(g_get_monotonic_time() - start, timeout == 0 ? 2100 : 5000);
    }
    loop.Drain(); // both pings have timed out, and are freed
    EXPECT_EQ(idle.seen, "e4 c4 e4 c4 ");
    EXPECT_TRUE(TCEventIO::Ping(&task, 60000000));

    Queue closed;
    EXPECT_FALSE(TCEventIO::Ping(&closed, 0));
    EXPECT_EQ(CountLog(kError, "event io queue has destroyed!"), 1);
}

TEST_F(SyncTest, ClearedEntriesReleaseTheirSenders)
{
    // By deletion, by EVENT_CLEAR_QUEUE and by Final. The ping times out. The synchronous send
    // returns at once when its entry is cleared, and its handler has not run.
    TCEvent event = Event(&idle, 7);
    const auto ping = [&] { EXPECT_FALSE(TCEventIO::Ping(&idle, 20000)); };
    std::thread pinger = Start(ping);
    EXPECT_EQ(idle.DeleteEvent(EVENT_PING, nullptr), 1);
    loop.Drain();
    pinger.join();
    for (const bool final : {false, true}) {
        std::thread sender = Start([&] { EXPECT_TRUE(SendSyncEvent(&event)); });
        pinger = Start(ping);
        if (final) {
            idle.Final();
        } else {
            SendUrgent(&idle, EVENT_CLEAR_QUEUE);
            loop.Drain();
        }
        sender.join();
        pinger.join();
    }
    EXPECT_EQ(idle.seen, "c4 e5 c5 c4 c4 ");
}

TEST_F(SyncTest, LimitTakesBackAQueuedEventAndWaitsForARunningHandler)
{
    TCEvent queued = Event(&idle, 7), running = Event(&task, 7);
    std::thread first = Start([&] { EXPECT_TRUE(SendSyncEvent(&queued)); });
    bool finished = false;
    task.onEvent = [&](const TCEvent& event) {
        if (event.id == 7) {
            g_usleep(21UL * G_USEC_PER_SEC); // longer than the limit of a send
            finished = true;
        }
    };
    EXPECT_TRUE(SendSyncEvent(&running));
    EXPECT_TRUE(finished);
    first.join();
    EXPECT_EQ(idle.CountEvent(), 0U);
    loop.Drain(); // the byte that is left dispatches nothing
    EXPECT_TRUE(Send(&idle, 8));
    loop.Drain();
    EXPECT_EQ(idle.seen, "e8 c8 ");
}
