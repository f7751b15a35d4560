// SPDX-License-Identifier: MIT
// Callables that run on a queue's thread, and scopes that close what they have created.
#include "BusHarness.h"

using namespace Velmora;

namespace {

using Convenience = BusTest;

// Its hook runs until the close has begun, and a while longer.
class Slow : public TCServer, public TCTask
{
public:
    struct Seen
    {
        std::atomic<bool> left{false};  // by the hook
        std::atomic<bool> whole{false}; // the hook has returned when the destructor begins
    };
    Slow(Seen& seen, bool onTask)
        : TCServer("t.slow", SERVER_TYPE_SERVICE), TCTask("slow"), m_Seen(seen), m_OnTask(onTask)
    {}
    ~Slow() override { m_Seen.whole = m_Seen.left.load(); }

    std::promise<void> inside;

protected:
    bool IfTransferMessage(const char* /*from*/, const TCMessage* /*message*/,
                           TCEventIO*& target) override
    {
        target = this;
        return m_OnTask;
    }
    bool IfMessageReceived(const char* /*from*/, const TCMessage* /*message*/, TCMessage* /*reply*/,
                           const char* /*signalName*/) override
    {
        std::atomic<bool>& left = m_Seen.left; // the hook may outlive the object
        inside.set_value();
        Await([] { return CountLog(kDebug, "close t.slow begin") == 1; });
        g_usleep(20000); // an end that does not wait would come first
        left = true;
        return true;
    }

private:
    Seen& m_Seen;
    const bool m_OnTask;
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

TEST_F(Convenience, CallableIsRefusedWithoutAQueueOrFunction)
{
    Queue queue;
    EXPECT_FALSE(RunAndWait(nullptr, [] { return 1; }).has_value());
    EXPECT_FALSE(RunAndWait(&queue, [] { ADD_FAILURE(); })); // not initialised
    EXPECT_FALSE(Velmora::Run(&queue, nullptr));
    EXPECT_EQ(CountLog(kWarning, "callable is null"), 1);
}

TEST_F(Convenience, EndsWaitForARunningHookOfAServerThatDoesNotCloseItself)
{
    TCScope<TCServer> sender("t.sender", TCServer::SERVER_TYPE_PROXY);
    Slow::Seen seen;
    const auto call = [&](Slow& slow, bool sync) {
        seen.left = false;
        ForgetLog();
        std::thread thread(
            [&, sync] { EXPECT_TRUE(sender->SendMessage("t.slow", &message, sync, &reply)); });
        slow.inside.get_future().wait();
        return thread;
    };
    const struct
    {
        bool onTask, sync;
    } cases[] = {{false, false}, {true, false}, {false, true}}; // the hook runs on three threads
    for (const auto& c : cases) {
        std::thread thread;
        {
            TCScope<Slow> slow(seen, c.onTask);
            thread = call(*slow, c.sync);
        }
        EXPECT_TRUE(seen.left);
        EXPECT_TRUE(seen.whole);
        thread.join();
    }
    {
        Slow slow(seen, false);
        ASSERT_TRUE(slow.CreateDBusServer());
        call(slow, false).join();
        slow.CloseDBusServer();
    } // waits in its destructor
    EXPECT_TRUE(seen.left);
}

TEST_F(Convenience, ScopeClosesWhatAThrowingCreateHasLeft)
{
    using Worker = Noted<TCTask>;
    const auto create = [] {
        return TCScope<Worker>("t.worker", TCServer::SERVER_TYPE_SERVICE, "worker").operator bool();
    };
    OnLog([](const std::string& line) {
        if (line.find("Get register id") != std::string::npos) {
            throw std::runtime_error("client");
        }
    });
    EXPECT_THROW(create(), std::runtime_error);
    OnLog(nullptr);
    EXPECT_EQ(CountLog(kDebug, "task is destroyed!"), 1);
    EXPECT_TRUE(create());
}
