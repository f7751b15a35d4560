// SPDX-License-Identifier: MIT
// Calls that tell how they have ended, whatever ends first.
#include <csignal>
#include <random>

#include "BusHarness.h"
#include "Held.h"
#include "sennet-extra.h"

using namespace Velmora;
using Kind = TCCallResult::Kind;

namespace {

constexpr int kShort = 100; // milliseconds

std::string Said(const TCCallResult& result)
{
    return std::string(ToString(result.kind)) + " " + result.text + " " + result.errorName;
}

TCCallOptions To(TCEventIO* queue, int timeout = -1)
{
    TCCallOptions options;
    options.queue = queue;
    options.timeout = timeout;
    return options;
}

// What GDBus of a client that iterates its own context would get.
class OwnContext
{
public:
    OwnContext() { g_main_context_push_thread_default(m_Context.get()); }
    ~OwnContext() { g_main_context_pop_thread_default(m_Context.get()); }
    OwnContext(const OwnContext&) = delete;
    OwnContext& operator=(const OwnContext&) = delete;

private:
    Internal::ContextPtr m_Context{g_main_context_new()};
};

} // namespace

class CallTest : public BusTest
{
protected:
    void SetUp() override
    {
        BusTest::SetUp();
        ASSERT_TRUE(proxy.CreateDBusProxy());
    }
    TCCallResult Call(const char* dest, int timeout = 20000)
    {
        return TCCall().Start(proxy, dest, message, timeout).get();
    }
    void AwaitName(const char* name)
    {
        Await([&] { return proxy.IsServiceAvailable(name); });
    }
    // Several results without a wait for each.
    static Kind KindOf(std::future<TCCallResult>& future) { return future.get().kind; }
};

TEST_F(CallTest, TellsHowItHasEnded)
{
    const ForeignService good("good.message", "('p', uint32 7, 't', '5', [(byte 0x61,), (0x62,)])");
    const ForeignService fail("fail.message",
                              R"(('p', uint32 1, '', '{"dbus_result":"fail"}', [(byte 0x00,)]))");
    const ForeignService odd("odd.message", "(5,)");
    const ForeignService mute("mute.message", "mute");
    const ForeignService dead("dead.message", "die");
    for (const char* name : {"good", "fail", "odd", "mute", "dead"}) {
        AwaitName(name);
    }
    const std::string illegal(300, 'x');
    const struct
    {
        const char* dest;
        int timeout;
        Kind kind;
        const char* error;
    } cases[] = {
        {"good", -1, Kind::Replied, ""},
        {"fail", -1, Kind::Failed, ""},
        {"odd", -1, Kind::Other, ""},
        {"mute", kShort, Kind::NoAnswer, ""},
        {"mute", 0, Kind::NoAnswer, ""},
        {"dead", -1, Kind::PeerGone, "org.freedesktop.DBus.Error.NoReply"},
        {"nobody", -1, Kind::NoService, "org.freedesktop.DBus.Error.ServiceUnknown"},
        {"org.freedesktop.DBus", -1, Kind::NoService, "org.freedesktop.DBus.Error.ServiceUnknown"},
        {illegal.c_str(), -1, Kind::Refused, ""},
        {"", -1, Kind::Refused, ""},
        {nullptr, -1, Kind::Refused, ""},
        {"good", -2, Kind::Refused, ""},
    };
    for (const auto& c : cases) {
        const TCCallResult result = Call(c.dest, c.timeout);
        EXPECT_EQ(result.kind, c.kind) << Text(c.dest) << ": " << Said(result);
        EXPECT_EQ(result.errorName, c.error) << Said(result);
        EXPECT_EQ(result.text.empty(), result.kind == Kind::Replied) << Said(result);
        EXPECT_EQ(static_cast<bool>(result), c.kind == Kind::Replied);
    }
    const TCCallResult replied = Call("good");
    unsigned char* bytes = nullptr;
    EXPECT_EQ(replied.reply.GetBuffer(bytes), 2U);
    EXPECT_EQ(replied.reply.GetString() + replied.reply.m_Type, "5t");
    EXPECT_EQ(replied.reply.m_Code, 7U);
    EXPECT_EQ(Call("fail").reply.GetString(), R"({"dbus_result":"fail"})");

    TCMessage wrong = Message("\xff");
    EXPECT_EQ(TCCall().Start(proxy, "good", wrong).get().kind, Kind::Refused);
    EXPECT_EQ(TCCall().Start(app, "good", message).get().kind, Kind::Refused); // not open
    EXPECT_FALSE(TCCall().Start(proxy, "good", message, TCCall::Callback()));
}

TEST_F(CallTest, ManyAtOnceShareOneTimeLimit)
{
    const ForeignService good("good.message", "('p', uint32 7, 't', '5', [(byte 0x00,)])");
    const ForeignService mute("mute.message", "mute");
    AwaitName("good");
    AwaitName("mute");
    const std::vector<TCCallRequest> requests{
        {"good", message}, {"mute", message}, {"nobody", message}, {"good", Message("y", 10)}};
    const auto check = [](const std::vector<TCCallResult>& results) {
        ASSERT_EQ(results.size(), 4U);
        const Kind kinds[] = {Kind::Replied, Kind::NoAnswer, Kind::NoService, Kind::Replied};
        for (std::size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(results[i].kind, kinds[i]) << Said(results[i]);
        }
    };
    TCCall call;
    check(call.All(proxy, requests, kShort).get());
    std::atomic<int> ended{0};
    EXPECT_TRUE(call.All(
        proxy, requests,
        [&](const std::vector<TCCallResult>& results) {
            check(results);
            ++ended;
        },
        To(nullptr, kShort)));
    EXPECT_FALSE(call.All(proxy, requests, [&](const auto&) { ++ended; }, {})); // one at a time
    EXPECT_EQ(call.All(proxy, requests).get()[3].kind, Kind::Refused);
    Await([&] { return ended == 1; });
    EXPECT_TRUE(call.All(proxy, {}).get().empty());
}

TEST_F(CallTest, GoesThroughTheQueueOfAServiceInTheProcess)
{
    TaskServer worker("worker", TCServer::SERVER_TYPE_SERVICE, "worker");
    Server plain("plain", TCServer::SERVER_TYPE_ACTIVITY);
    ASSERT_TRUE(worker.TCTask::Create("worker"));
    ASSERT_TRUE(worker.CreateDBusServer());
    ASSERT_TRUE(plain.CreateDBusServer());
    AwaitName("worker.plain");
    GThread* const thread = *RunAndWait(&worker, [] { return g_thread_self(); });

    EXPECT_EQ(Call("worker").reply.GetString(), "x");
    EXPECT_EQ(worker.thread, thread);
    EXPECT_EQ(Call("plain").reply.GetString(), "x"); // no queue: over the bus
    EXPECT_NE(plain.thread, thread);

    // The hook is not run by the start, and a late answer is no answer.
    TCCall waiting, swept;
    std::future<TCCallResult> late, gone;
    {
        const Held held(&worker);
        EXPECT_EQ(Call("worker", kShort).kind, Kind::NoAnswer);
        gone = swept.Start(proxy, "worker", message);
        worker.DeleteEvent(&worker);
        late = waiting.Start(proxy, "worker", message);
    }
    EXPECT_EQ(KindOf(gone), Kind::PeerGone);
    EXPECT_EQ(KindOf(late), Kind::Replied);
    worker.TCTask::Destroy();
    AwaitName("worker");
    EXPECT_EQ(Call("worker").reply.GetString(), "x"); // the queue refuses: over the bus
}

TEST_F(CallTest, EndsOnceWhateverEndsItFirst)
{
    const ForeignService mute("mute.message", "mute");
    AwaitName("mute");
    TCCall call, other;
    auto result = call.Start(proxy, "mute", message);
    EXPECT_EQ(KindOf(result = call.Start(proxy, "mute", message)), Kind::Refused); // busy
    auto first = other.Start(proxy, "mute", message);
    other.Cancel();
    other.Cancel();
    EXPECT_EQ(KindOf(first), Kind::Cancelled);
    {
        TCCall destroyed;
        first = destroyed.Start(proxy, "mute", message);
    }
    EXPECT_EQ(KindOf(first), Kind::Cancelled);

    Server extra("extra", TCServer::SERVER_TYPE_PROXY);
    auto doomed = std::make_unique<Noted<>>("doomed", TCServer::SERVER_TYPE_PROXY);
    ASSERT_TRUE(extra.CreateDBusProxy());
    ASSERT_TRUE(doomed->CreateDBusProxy());
    TCCall closes, dies;
    auto closed = closes.Start(extra, "mute", message);
    auto died = dies.Start(*doomed, "mute", message);
    extra.CloseDBusProxy();
    EXPECT_EQ(KindOf(closed), Kind::Closed);
    doomed.reset(); // without a close
    EXPECT_EQ(KindOf(died), Kind::Closed);

    auto left = closes.Start(proxy, "mute", message);
    ASSERT_TRUE(proxy.IsServiceAvailable("mute")); // the bus has passed on the call before
    kill(mute.Id(), SIGKILL);
    EXPECT_EQ(KindOf(left), Kind::PeerGone);
}

TEST_F(CallTest, LossOfTheBusEndsCallsOfEveryThread)
{
    const ForeignService mute("mute.message", "mute");
    AwaitName("mute");
    const pid_t daemon = RawPeer().Daemon();
    TCCall calls[4];
    std::vector<std::future<TCCallResult>> results;
    const OwnContext neverRun;
    for (TCCall& call : calls) {
        results.push_back(call.Start(proxy, "mute", message));
    }
    kill(daemon, SIGKILL);
    for (auto& result : results) {
        EXPECT_EQ(KindOf(result), Kind::BusGone);
    }
    EXPECT_EQ(Call("mute").kind, Kind::BusGone);
}

TEST_F(CallTest, CallbackRunsOnItsQueueAndNotAfterTheCallIsDestroyed)
{
    TCScope<TCTask> task("task");
    ASSERT_TRUE(app.CreateDBusServer());
    AwaitName("app");
    std::atomic<int> ended{0};
    std::atomic<bool> onQueue{false};
    auto call = std::make_unique<TCCall>();
    // Starts again in its own callback.
    std::function<void(const TCCallResult&)> next = [&](const TCCallResult& result) {
        EXPECT_EQ(result.kind, Kind::Replied);
        onQueue = RunAndWait(&*task, [] { return g_thread_self(); }) == g_thread_self();
        if (++ended < 3) {
            EXPECT_TRUE(call->Start(proxy, "app", message, next, To(&*task)));
        }
    };
    EXPECT_TRUE(call->Start(proxy, "app", message, next, To(&*task)));
    Await([&] { return ended == 3; });
    EXPECT_TRUE(onQueue);

    // The destructor waits for a callback on another thread.
    std::promise<void> begun, go;
    std::atomic<bool> returned{false};
    call = std::make_unique<TCCall>();
    call->Start(
        proxy, "app", message,
        [&](const TCCallResult&) {
            begun.set_value();
            go.get_future().wait();
            returned = true;
        },
        To(&*task));
    begun.get_future().wait();
    std::thread release([&] {
        EXPECT_FALSE(returned);
        go.set_value();
    });
    call.reset();
    EXPECT_TRUE(returned);
    release.join();

    // In its own callback it does not wait.
    std::promise<void> destroyed;
    call = std::make_unique<TCCall>();
    call->Start(
        proxy, "app", message,
        [&](const TCCallResult&) {
            call.reset();
            destroyed.set_value();
        },
        To(&*task));
    destroyed.get_future().wait();

    // A result that waits in the queue is not delivered any more.
    const auto captured = std::make_shared<int>(0);
    {
        const Held held(&*task);
        TCCall unheard;
        unheard.Start(
            proxy, "nobody", message, [captured](const TCCallResult&) { ++*captured; }, To(&*task));
        Await([&] { return task->CountEvent() == 1; });
    }
    EXPECT_EQ(captured.use_count(), 1);
    RunAndWait(&*task, [] {});
    EXPECT_EQ(*captured, 0);
}

TEST_F(CallTest, QueueThatDoesNotTakeTheResultDestroysTheCallback)
{
    const ForeignService mute("mute.message", "mute");
    AwaitName("mute");
    const auto captured = std::make_shared<int>(0);
    const auto callback = [captured](const TCCallResult&) { ++*captured; };
    TCTask never("never");
    auto gone = std::make_unique<TCTask>("gone");
    Queue swept;
    ASSERT_TRUE(gone->Create("gone"));
    ASSERT_TRUE(swept.Init(nullptr));
    TCCall calls[3];
    for (const auto& [call, queue] : {std::pair<TCCall*, TCEventIO*>(&calls[0], &never),
                                      {&calls[1], gone.get()},
                                      {&calls[2], &swept}}) {
        EXPECT_TRUE(call->Start(proxy, "mute", message, callback, To(queue)));
    }
    gone->Destroy();
    gone.reset();
    Held held(dispatcher);
    for (TCCall& call : calls) {
        call.Cancel();
    }
    Await([&] { return swept.CountEvent() == 1; });
    swept.Final();
    Await([&] { return captured.use_count() == 2; }); // this one's and the lambda's
    held.Release();
    EXPECT_EQ(*captured, 0);
    EXPECT_TRUE(calls[0].Start(proxy, "nobody", message, [](const TCCallResult&) {}));
}

TEST_F(CallTest, ThousandCallsEndOnceEach)
{
    const ForeignService good("good.message", "('p', uint32 7, 't', '5', [(byte 0x00,)])");
    const ForeignService mute("mute.message", "mute");
    TaskServer local("local", TCServer::SERVER_TYPE_SERVICE, "local");
    TCScope<TCTask> task("task");
    ASSERT_TRUE(local.TCTask::Create("local"));
    ASSERT_TRUE(local.CreateDBusServer());
    AwaitName("good");
    AwaitName("mute");
    constexpr std::size_t count = 1000;
    constexpr std::size_t dropped = 5; // one of so many is destroyed early
    std::mt19937 random(7);
    std::vector<std::unique_ptr<TCCall>> calls(count);
    std::vector<std::atomic<int>> ended(count);
    const char* const names[] = {"good", "local", "mute", "dying", "nobody"};
    std::unique_ptr<ForeignService> dying;
    for (std::size_t i = 0; i < count; ++i) {
        if (i % 100 == 0) {
            dying = std::make_unique<ForeignService>("dying.message", "die");
        }
        calls[i] = std::make_unique<TCCall>();
        const char* const name = names[random() % std::size(names)];
        const auto timeout = static_cast<int>(random() % 20 * 10);
        // A bus with its default limits lets 128 calls wait.
        calls[i]->Start(
            proxy, name, message, [&ended, i](const TCCallResult&) { ++ended[i]; },
            To(i % 2 == 0 ? &*task : nullptr, timeout));
        if (random() % 4 == 0) {
            calls[random() % (i + 1)]->Cancel();
        }
        if (i % dropped == 0) {
            calls[i] = std::make_unique<TCCall>();
        }
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (i % dropped != 0) {
            Await([&] { return ended[i] > 0; });
        }
    }
    calls.clear();
    RunAndWait(&*task, [] {});
    AwaitDispatch();
    for (std::size_t i = 0; i < count; ++i) {
        EXPECT_LE(ended[i], 1) << i;
    }
}
