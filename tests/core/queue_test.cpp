// SPDX-License-Identifier: MIT
// Posting, dispatch, removal and the end of a queue, on a loop that the test iterates.
#include <future>
#include <memory>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Harness.h"

using namespace Velmora;

namespace {

const auto kSends = {&TCEventIO::SendEvent, &TCEventIO::SendUrgentEvent, &TCEventIO::SendSyncEvent};

class QueueTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ForgetLog();
        ASSERT_TRUE(queue.Init(loop.Get()));
        other.m_EventIO = &queue;
    }
    void TearDown() override { queue.Final(); }

    static unsigned int Fill(Queue& filled)
    {
        unsigned int accepted = 0;
        while (Send(&filled, 7)) {
            ++accepted;
        }
        return accepted;
    }
    // Runs one callback without GLib in between, since no exception may pass through GLib.
    void Dispatch()
    {
        const std::unique_ptr<GIOChannel, Internal::Releaser<g_io_channel_unref>> channel(
            g_io_channel_unix_new(queue.m_PipeFileDes[0]));
        g_io_channel_set_encoding(channel.get(), nullptr, nullptr);
        g_io_channel_set_buffered(channel.get(), FALSE);
        Queue::m_InterIOWatch(channel.get(), G_IO_IN, &queue);
    }
    std::thread SendSyncElsewhere()
    {
        const unsigned int queued = queue.CountEvent();
        std::thread sender([this] {
            TCEvent event = Event(&queue, 8);
            EXPECT_TRUE(SendSyncEvent(&event));
        });
        Await([&] { return queue.CountEvent() > queued; });
        return sender;
    }

    Loop loop;
    Queue queue;
    Noting<TCHandler> other; // its events go to that queue
};

bool IsHeld(TCMutex& mutex)
{
    return std::async(std::launch::async,
                      [&] {
                          const bool free = mutex.Try(0);
                          mutex.Unlock();
                          return !free;
                      })
        .get();
}

} // namespace

TEST(ClosedQueue, RefusesEverySend)
{
    Loop loop;
    Queue queue;
    Noting<TCHandler> stray;
    for (int round = 0; round < 2; ++round) { // before Init and after Final
        for (const auto send : kSends) {
            ForgetLog();
            for (TCHandler* receiver : std::initializer_list<TCHandler*>{&queue, &stray, nullptr}) {
                TCEvent event = Event(receiver, 7);
                EXPECT_FALSE(send(&event));
            }
            EXPECT_FALSE(send(nullptr));
            EXPECT_EQ(CountLog(kError, "event io queue has destroyed!"), 1);
            EXPECT_EQ(CountLog(kError, "SendSyncEvent fails!"), send == &TCEventIO::SendSyncEvent);
            EXPECT_EQ(CountLog(kError, "receiver has no event io"), 1);
            EXPECT_EQ(CountLog(kError, "receiver is NULL"), 1);
            EXPECT_EQ(CountLog(kWarning, "event is null"), 1);
        }
        EXPECT_EQ(queue.CountEvent(), 0U);
        EXPECT_EQ(queue.DeleteEvent(nullptr), -1);
        EXPECT_EQ(CountLog(kInfo, "m_FlagCreate is false"), 1);
        EXPECT_TRUE(queue.Init(loop.Get()));
        queue.Final();
        queue.Final();
        EXPECT_EQ(CountLog(kInfo, "already final"), 1);
    }
}

TEST(QueueLifecycle, LeaksNoDescriptorWhateverFails)
{
    g_main_context_default(); // opens a descriptor of its own the first time
    const auto before = Support::OpenDescriptors();
    {
        Loop loop;
        Queue queue, closed;
        queue.initResult = false;
        ForgetLog();
        EXPECT_FALSE(queue.Init(loop.Get()));
        EXPECT_EQ(CountLog(kInfo, "End"), 1);
        EXPECT_FALSE(Send(&queue, 7));
        EXPECT_FALSE(queue.Init(loop.Get()));
        queue.Final();

        queue.initResult = true;
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit none = {0, limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        EXPECT_FALSE(queue.Init(loop.Get()));
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(CountLog(kError, "Create pipe fail!"), 1);

        EXPECT_TRUE(queue.Init(nullptr)); // the default context
        EXPECT_TRUE(Send(&queue, EVENT_EXIT_TASK));
        EXPECT_TRUE(queue.Init(loop.Get())); // changes nothing
        loop.Drain();
        EXPECT_EQ(queue.seen, "");
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        EXPECT_EQ(queue.seen, "e1 c1 ");
        queue.Final();

        const int standardInput = dup(STDIN_FILENO);
        close(STDIN_FILENO);
        EXPECT_TRUE(closed.Init(loop.Get()));
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
        dup2(standardInput, STDIN_FILENO);
        close(standardInput);
        for (const int end : closed.m_PipeFileDes) {
            EXPECT_GT(end, STDERR_FILENO);
            EXPECT_EQ(fcntl(end, F_GETFD), FD_CLOEXEC);
        }
    } // destructs `closed` without Final()
    EXPECT_EQ(Support::OpenDescriptors(), before);
}

TEST_F(QueueTest, UrgentEventsOvertakeAndTheSenderKeepsItsEvent)
{
    std::string texts;
    queue.onEvent = [&](const TCEvent& event) { texts += event.data.GetMessage(); };
    TCEvent event = Event(&queue, 0);
    for (const char* text : {"A", "B", "C", "U", "V"}) {
        event.data.SetMessage(text);
        event.sync = *text >= 'U'; // as SendSyncEvent leaves it; an urgent send ignores it
        EXPECT_TRUE(event.sync ? SendUrgentEvent(&event) : SendEvent(&event));
    }
    event.data.SetMessage("changed");
    EXPECT_EQ(queue.CountEvent(), 5U);
    loop.Step();
    EXPECT_EQ(texts, "V"); // one event in each callback
    loop.Drain();
    EXPECT_EQ(texts, "VUABC");
    EXPECT_EQ(queue.seen, "e0 c0 e0 c0 e0 c0 e0 c0 e0 c0 ");
    EXPECT_EQ(queue.CountEvent(), 0U);
}

TEST_F(QueueTest, NestedLoopLeavesTheQueuesNextEventToTheOuterOne)
{
    struct Nesting : Queue
    {
        using TCEventIO::m_Source;
    };
    auto nesting = std::make_unique<Nesting>();
    Noting<TCHandler> guest; // its events go to that queue
    const auto watch = [&] {
        return g_main_context_find_source_by_user_data(loop.Context(), nesting.get());
    };
    const auto init = [&] { (nesting->Init(loop.Get()), g_source_set_priority(watch(), 3)); };
    const auto again = [&] { (nesting->Final(), init(), Send(&guest, 9)); };
    const struct
    {
        std::function<void()> before, after;
        std::string seen;
    } cases[] = {
        {[] {}, [] {}, "e7 c7 e8 c8 "},
        {[] {}, [&] { loop.Drain(); }, "e7 c7 e8 c8 "},
        {[] {}, [&] { nesting->Final(); }, "e7 c8 c7 "},
        {[] {}, again, "e7 c8 c7 e9 c9 "},
        {again, [] {}, "e7 c8 c7 e9 c9 "},
        {[&] { g_source_destroy(watch()); }, [] {}, "e7 c7 c8 "},
        {[] {}, [&] { g_source_destroy(nesting->m_Source); }, "e7 c7 c8 "},
        {[] {}, [&] { (nesting->Final(), nesting.reset()); }, "e7 c8 c7 "}, // the last
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(&c - cases));
        guest.m_EventIO = nesting.get();
        init();
        guest.seen = queue.seen = "";
        guest.onEvent = [&](const TCEvent& event) {
            if (event.id == 7) {
                c.before();
                Send(&queue, 8);
                loop.Drain();
                EXPECT_EQ(guest.seen.rfind('e'), 0U);
                EXPECT_EQ(queue.seen, "e8 c8 "); // another source
                c.after();
            }
        };
        Send(&guest, 7);
        Send(&guest, 8);
        loop.Drain();
        if (nesting) {
            EXPECT_TRUE(!watch() || g_source_get_priority(watch()) == 3);
            nesting->Final();
        }
        EXPECT_EQ(guest.seen, c.seen);
    }
}

TEST_F(QueueTest, NothingIsDispatchedBehindTheEndOfTheLoop)
{
    Send(&other, EVENT_EXIT_TASK); // a handler does not pass the event on to the queue
    Send(&queue, EVENT_EXIT_TASK);
    Send(&queue, 7);
    g_main_loop_run(loop.Get());
    loop.Drain(); // as a nested loop would
    EXPECT_EQ(queue.seen, "e1 c1 ");
    EXPECT_EQ(queue.CountEvent(), 1U);
    EXPECT_EQ(RunAndWait(&queue, [] { return 1; }), std::nullopt);
    queue.Final();
    EXPECT_TRUE(queue.Init(loop.Get()));
    EXPECT_TRUE(Send(&queue, 8));
    loop.Drain();
    EXPECT_EQ(queue.seen, "e1 c1 c7 c6 e8 c8 ");
}

TEST_F(QueueTest, ForkedChildLeavesItsParentsPipeAlone)
{
    for (const bool raw : {false, true}) { // through the library, or around it
        Send(&queue, 7);
        const pid_t child = fork();
        if (child == 0) {
            int sent = 0;
            while (raw ? sent < 8192 && write(queue.m_PipeFileDes[1], "O", 1) == 1
                       : Send(&queue, 8)) {
                ++sent;
            }
            loop.Step();
            _exit(sent == (raw ? 8192 : 0) && queue.seen.empty() ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        loop.Drain();
        EXPECT_EQ(std::exchange(queue.seen, ""), "e7 c7 ");
    }
    Fill(queue); // waits for ever if bytes are counted that are not there
    EXPECT_EQ(CountLog(kError, "event io queue is full!"), 1);
}

TEST_F(QueueTest, LockIsHeldWhereClientsAreToldSoAndNotWhileALineIsWritten)
{
    struct Probe : Queue
    {
        bool t_Init() override { return IsHeld(m_QueueMutex); }
    } probe;
    EXPECT_TRUE(probe.Init(loop.Get()));
    bool held = false;
    probe.onClear = [&](const TCEvent&) { held = IsHeld(probe.m_QueueMutex); };
    Send(&probe, 7);
    probe.Final();
    EXPECT_TRUE(held);

    int lines = 0;
    queue.initResult = false;
    queue.Final();
    queue.Init(loop.Get()); // has a watch, but refuses every event
    EXPECT_EQ(write(queue.m_PipeFileDes[1], "O", 1), 1);
    OnLog([&](const std::string&) { lines += IsHeld(queue.m_QueueMutex) ? 100 : 1; });
    loop.Step();
    EXPECT_FALSE(Send(&queue, 7));
    OnLog(nullptr);
    EXPECT_EQ(CountLog(kError, "event io queue has destroyed!"), 2);
    EXPECT_EQ(lines, 2);
}

TEST(SignalTable, MayBeAskedByTheLog)
{
    TCServerSignalManager table;
    TCSignalCallback callback = nullptr;
    void* userData = nullptr;
    unsigned int id = 0;
    table.SubscribeNativeSignal("key", "signal", nullptr, nullptr, 7);
    std::string answers;
    OnLog([&](const std::string&) {
        answers +=
            table.IfSignalSubscribed(TCServerSignalManager::SIGNAL_TYPE_NATIVE, "key") ? "y" : "n";
    });
    EXPECT_FALSE(table.GetHandlerForNativeSignal("none", "none", callback, userData));
    EXPECT_TRUE(table.UnsubscribeSignal(TCServerSignalManager::SIGNAL_TYPE_NATIVE, "key", id));
    OnLog(nullptr);
    EXPECT_EQ(answers, "yn");
    EXPECT_EQ(id, 7U);
}

TEST_F(QueueTest, FullPipeRefusesWithoutWaitingAndLosesNothing)
{
    for (const int size : {4096, 8192, 65536}) {
        for (const unsigned int dispatchedFirst : {0U, 1U, 3000U}) {
            SCOPED_TRACE(std::to_string(size) + " " + std::to_string(dispatchedFirst));
            Queue tight;
            ASSERT_TRUE(tight.Init(loop.Get()));
            ASSERT_EQ(fcntl(tight.m_PipeFileDes[1], F_SETPIPE_SZ, size), size);
            ForgetLog();
            unsigned int dispatched = 0;
            tight.onEvent = [&](const TCEvent&) { ++dispatched; };
            unsigned int accepted = Fill(tight);
            EXPECT_GE(accepted, size == 65536 ? 60000U : 4096U);
            for (unsigned int i = 0; i < dispatchedFirst; ++i) {
                loop.Step();
            }
            accepted += Fill(tight);
            EXPECT_FALSE(SendUrgent(&tight, 7));
            EXPECT_EQ(CountLog(kError, "event io queue is full!"), 3);
            EXPECT_EQ(fcntl(tight.m_PipeFileDes[1], F_GETFL) & O_NONBLOCK, 0);
            loop.Drain();
            EXPECT_EQ(dispatched, accepted);
            EXPECT_TRUE(Send(&tight, 7));
            ASSERT_EQ(fcntl(tight.m_PipeFileDes[1], F_SETPIPE_SZ, 4096), 4096); // shrunk
            EXPECT_EQ(Fill(tight), 4095U);
            tight.Final();
        }
    }
}

TEST_F(QueueTest, DeletedEntriesSkipTheirHandlerOnly)
{
    EXPECT_EQ(queue.DeleteEvent(&other), 0);
    Send(&other, 7);
    Send(&other, 8);
    Send(&other, 7);
    Send(&queue, 7);
    EXPECT_EQ(queue.DeleteEvent(7, &other), 2);
    EXPECT_EQ(queue.DeleteEvent(&other), 3);
    EXPECT_EQ(queue.DeleteEvent(9, nullptr), 0);
    EXPECT_EQ(queue.CountEvent(), 4U);
    loop.Drain();
    EXPECT_EQ(other.seen, "c7 c8 c7 ");
    EXPECT_EQ(queue.seen, "e7 c7 ");
    EXPECT_EQ(CountLog(kInfo, "deleted event"), 3);
}

TEST_F(QueueTest, CallablesAndMessagesAreReleasedHoweverTheyEnd)
{
    const auto token = std::make_shared<int>(0);
    const auto count = [token] { ++*token; };
    const std::function<void()> ends[] = {
        [] {}, // they run
        [&] { queue.DeleteEvent(nullptr); },
        [&] { SendUrgent(&queue, EVENT_CLEAR_QUEUE); },
        [&] { queue.Final(); },
    };
    for (const auto& end : ends) {
        Send(&queue, EVENT_EXECUTE_FUNCTION, new std::function<void()>(count));
        Send(&queue, EVENT_EXECUTE_FUNCTION);
        Send(&queue, EVENT_TRANSFER_MESSAGE, new TCMessage);
        Send(&queue, EVENT_TRANSFER_MESSAGE);
        auto ran = std::async(std::launch::async, [&] { return RunAndWait(&queue, count); });
        Await([&] { return queue.CountEvent() == 5; });
        end();
        loop.Drain();
        EXPECT_EQ(ran.get(), &end == ends);
    }
    EXPECT_EQ(*token, 2);
    EXPECT_EQ(token.use_count(), 2); // held by this test
    EXPECT_EQ(CountLog(kInfo, "execute function in this event io"), 3);
    EXPECT_EQ(CountLog(kInfo, "transfer async internal event to sync message call"), 2);
    EXPECT_EQ(CountLog(kInfo, "clear message memory"), 20);
}

TEST_F(QueueTest, SweepClearsWhatIsQueuedAndABusyLockOnlyDelays)
{
    TCScope<TCTask> holder("holder");
    for (const bool busy : {false, true}) {
        queue.seen.clear();
        queue.onClear = [&](const TCEvent& event) {
            if (busy && event.id == EVENT_CLEAR_QUEUE) {
                RunAndWait(&*holder, [&] { queue.m_QueueMutex.Lock(); });
            }
        };
        for (const unsigned long id : {EVENT_CLEAR_QUEUE, 7UL, 8UL}) {
            Send(&queue, id);
        }
        loop.Step();
        loop.Step();
        EXPECT_EQ(CountLog(kError, "Try lock mutex fail!"), busy);
        EXPECT_EQ(queue.seen, busy ? "e5 c5 " : "e5 c5 c7 c8 ");
        EXPECT_EQ(queue.CountEvent(), busy ? 2U : 0U);
        RunAndWait(&*holder, [&] { queue.m_QueueMutex.Unlock(); });
        Send(&queue, 9);
        loop.Drain(); // the bytes that the clearing leaves dispatch nothing twice
        EXPECT_EQ(queue.seen, busy ? "e5 c5 e7 c7 e8 c8 e9 c9 " : "e5 c5 c7 c8 e9 c9 ");
    }
}

TEST_F(QueueTest, FinalClearsEntriesThatClearingAdds)
{
    queue.onClear = [&](const TCEvent& event) { event.id < 9 && Send(&queue, event.id + 1); };
    Send(&queue, 7);
    Send(&queue, EVENT_CLEAR_QUEUE);
    queue.Final();
    EXPECT_EQ(queue.seen, "c7 c5 c8 c6 c9 c7 c8 c9 ");
}

TEST_F(QueueTest, ThrowingClientLeavesNoLockAndNoEventBehind)
{
    const auto fail = [&](const TCEvent&) {
        loop.Drain(); // a nested loop
        throw std::runtime_error("client");
    };
    queue.onEvent = fail;
    Send(&queue, 7);
    std::thread sender = SendSyncElsewhere();
    EXPECT_THROW(Dispatch(), std::runtime_error);
    EXPECT_THROW(Dispatch(), std::runtime_error);
    sender.join();
    queue.onEvent = nullptr;
    Send(&queue, 9);
    loop.Drain(); // the watch is in place
    EXPECT_EQ(queue.seen, "e7 c7 e8 e9 c9 ");

    queue.onClear = fail;
    Send(&queue, 9);
    EXPECT_THROW(queue.Final(), std::runtime_error);
    queue.onClear = nullptr;
    std::thread([&] { EXPECT_TRUE(Send(&queue, 9)); }).join(); // would wait if a lock were held
}

TEST_F(QueueTest, FailedWriteQueuesNothing)
{
    const int kept = dup(queue.m_PipeFileDes[1]);
    dup2(queue.m_PipeFileDes[0], queue.m_PipeFileDes[1]); // the read end cannot be written
    OnLog([&](const std::string&) { EXPECT_FALSE(IsHeld(queue.m_QueueMutex)); });
    EXPECT_FALSE(Send(&queue, 7));
    OnLog(nullptr);
    EXPECT_EQ(CountLog(kError, "event io queue: write to pipe fail,*"), 1);
    EXPECT_EQ(queue.CountEvent(), 0U);
    dup2(kept, queue.m_PipeFileDes[1]);
    close(kept);
    EXPECT_TRUE(Send(&queue, 8));
    loop.Drain();
    EXPECT_EQ(queue.seen, "e8 c8 ");
}

TEST_F(QueueTest, FailedReadEndsTheDispatchButNotTheSender)
{
    const int kept = dup(queue.m_PipeFileDes[0]); // so that the pipe still has a reader
    const int unreadable = open("/", O_RDONLY | O_CLOEXEC);
    dup2(unreadable, queue.m_PipeFileDes[0]);
    close(unreadable);
    std::thread sender = SendSyncElsewhere();
    loop.Drain();
    EXPECT_EQ(CountLog(kError, "Read char from pipe fail,*"), 1);
    EXPECT_TRUE(Send(&queue, 8));
    loop.Drain();
    queue.Final();
    sender.join();
    close(kept);
    EXPECT_EQ(queue.seen, "c8 ");
}
