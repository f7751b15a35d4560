// Callables on a queue's thread, and scopes that close what they have created.
#include "BusHarness.h"

using namespace Velmora;

namespace {

using Convenience = BusTest;

// Its hook uses what only the most derived class has.
class Worker : public Noted<TCTask>
{
public:
    explicit Worker(std::atomic<int>& handled) : Noted("t.worker", SERVER_TYPE_SERVICE, "worker")
    {
        transferTo = this;
        onMessage = [this, &handled](TCMessage&) { handled += *m_One; };
    }

private:
    std::unique_ptr<int> m_One = std::make_unique<int>(1);
};

// Its hook runs until the close has begun, and a while longer.
class Slow : public TCServer
{
public:
    Slow(std::atomic<bool>& left, std::atomic<bool>& whole)
        : TCServer("t.slow", SERVER_TYPE_SERVICE), m_Left(left), m_Whole(whole)
    {}
    ~Slow() override { m_Whole = m_Left.load(); }

    std::promise<void> inside;

protected:
    bool IfMessageReceived(const char* /*from*/, const TCMessage* /*message*/, TCMessage* /*reply*/,
                           const char* /*signalName*/) override
    {
        std::atomic<bool>& left = m_Left; // which the object may not outlive
        inside.set_value();
        Await([] { return CountLog(kDebug, "close t.slow begin") == 1; });
        g_usleep(20000); // an end that does not wait gets ahead
        left = true;
        return true;
    }

private:
    std::atomic<bool>& m_Left;
    std::atomic<bool>& m_Whole; // the hook has left when the destructor begins
};

} // namespace

TEST_F(Convenience, ResultsAndExceptionsReachTheWaiter)
{
    TCScope<TCTask> task("task");
    TCTask* const queue = &*task;
    EXPECT_TRUE(RunAndWait(queue, [] {}));
    EXPECT_NE(RunAndWait(queue, g_thread_self), g_thread_self());
    EXPECT_EQ(RunAndWait(queue, [&] { return *RunAndWait(queue, [] { return 7; }); }), 7);
    EXPECT_EQ(**RunAndWait(queue, [] { return std::make_unique<int>(7); }), 7);
    EXPECT_THROW(RunAndWait(queue, [] { throw std::runtime_error("x"); }), std::runtime_error);
    EXPECT_THROW(
        RunAndWait(queue, [] { throw std::future_error(std::future_errc::broken_promise); }),
        std::future_error);
}

TEST_F(Convenience, CallableThatDoesNotRunWakesItsWaiter)
{
    Loop loop;
    Queue queue;
    const auto run = [&] { return RunAndWait(&queue, [] { ADD_FAILURE(); }); };
    EXPECT_FALSE(RunAndWait(nullptr, [] { return 1; }).has_value());
    EXPECT_FALSE(Velmora::Run(&queue, nullptr));
    EXPECT_EQ(CountLog(kWarning, "callable is null"), 1);
    EXPECT_FALSE(run());
    ASSERT_TRUE(queue.Init(loop.Get()));
    const std::function<void()> endings[] = {
        [&] { (queue.DeleteEvent(nullptr), loop.Drain()); },
        [&] { (SendUrgent(&queue, EVENT_CLEAR_QUEUE), loop.Drain()); },
        [&] { queue.Final(); },
    };
    for (const auto& end : endings) {
        std::future<bool> ran = std::async(std::launch::async, run);
        Await([&] { return queue.CountEvent() == 1; });
        end();
        EXPECT_FALSE(ran.get());
    }
}

TEST_F(Convenience, ScopeClosesWhileHooksRunOnOtherThreads)
{
    TCScope<TCServer> sender("t.sender", TCServer::SERVER_TYPE_PROXY);
    std::atomic<int> handled{0};
    std::atomic<bool> over{false};
    std::thread thread([&] { // by turns on this thread and on the task's
        for (bool sync = true; !over; sync = !sync) {
            sender->SendMessage("t.worker", &message, sync, sync ? &reply : nullptr);
        }
    });
    for (int round = 0; round < 20; ++round) {
        handled = 0;
        const TCScope<Worker> worker(handled);
        Await([&] { return handled > 10; });
    }
    over = true;
    thread.join();
}

TEST_F(Convenience, EndsWaitForARunningHookOfAServerThatDoesNotCloseItself)
{
    TCScope<TCServer> sender("t.sender", TCServer::SERVER_TYPE_PROXY);
    std::atomic<bool> left, whole;
    const auto call = [&](Slow& slow) {
        left = false;
        ForgetLog();
        EXPECT_TRUE(sender->SendMessage("t.slow", &message, false, nullptr));
        slow.inside.get_future().wait();
    };
    {
        TCScope<Slow> slow(left, whole);
        call(*slow);
    }
    EXPECT_TRUE(left);
    EXPECT_TRUE(whole);
    {
        Slow slow(left, whole);
        ASSERT_TRUE(slow.CreateDBusServer());
        call(slow);
        slow.CloseDBusServer();
    } // the destructor alone
    EXPECT_TRUE(left);
}

TEST_F(Convenience, ScopeClosesWhatAThrowingCreateHasLeft)
{
    std::atomic<int> handled{0};
    OnLog([](const std::string& line) {
        if (line.find("Get register id") != std::string::npos) {
            throw std::runtime_error("client");
        }
    });
    EXPECT_THROW(TCScope<Worker>{handled}, std::runtime_error);
    OnLog(nullptr);
    EXPECT_EQ(CountLog(kDebug, "task is destroyed!"), 1);
    EXPECT_TRUE(TCScope<Worker>(handled));
}
