// SPDX-License-Identifier: MIT
// Answers after the hook has returned, and what a hook learns of its caller.
#include <grp.h>
#include <unistd.h>

#include "BusHarness.h"
#include "Held.h"
#include "sennet-extra.h"

using namespace Velmora;
using Kind = TCCallResult::Kind;

namespace {

// Defers its answers, in the order of the calls.
class Deferring : public Noted<TCTask>
{
public:
    explicit Deferring(const char* name, TCServerType type = SERVER_TYPE_SERVICE)
        : Noted<TCTask>(name, type, "deferring")
    {
        onMessage = [this](TCMessage&) {
            TCReply later = TCReply::Later();
            wasEmpty = !later;
            EXPECT_FALSE(TCReply::Later()); // taken
            const std::lock_guard<std::mutex> lock(m_Mutex);
            m_Replies.push_back(std::move(later));
            ++deferred;
        };
    }
    ~Deferring() override
    {
        CloseDBusServer();
        AwaitHooks();
        TCTask::Destroy();
    }

    TCReply Next()
    {
        Await([&] { return deferred > 0; });
        const std::lock_guard<std::mutex> lock(m_Mutex);
        TCReply first = std::move(m_Replies.front());
        m_Replies.erase(m_Replies.begin());
        --deferred;
        return first;
    }

    std::atomic<int> deferred{0};
    std::atomic<bool> wasEmpty{false};

private:
    std::mutex m_Mutex;
    std::vector<TCReply> m_Replies;
};

constexpr char kErrorText[] = R"({"dbus_result":"fail","errmsg":"error handling"})";
constexpr char kLate[] = "('late', uint32 0, '', 'y', [(byte 0x00,)])";

} // namespace

class ReplyTest : public BusTest
{
protected:
    void SetUp() override
    {
        BusTest::SetUp();
        ASSERT_TRUE(proxy.CreateDBusProxy());
        ASSERT_TRUE(late.CreateDBusServer());
        Await([&] { return proxy.IsServiceAvailable("late"); });
    }
    std::future<std::string> SendDirectly(int timeout = -1)
    {
        return std::async(std::launch::async, [this, timeout] {
            TCMessage answer;
            EXPECT_TRUE(proxy.SendMessage("late", &message, true, &answer, timeout));
            return answer.GetMessage();
        });
    }

    Deferring late{"late"};
    RawPeer peer;
};

TEST_F(ReplyTest, EveryRouteGetsTheAnswerOnce)
{
    EXPECT_FALSE(TCReply::Later()); // no hook runs here
    EXPECT_FALSE(TCReply().Answer(message));
    for (TCEventIO* const queue :
         {static_cast<TCEventIO*>(nullptr), static_cast<TCEventIO*>(&late)}) {
        late.transferTo = queue; // without a loop: handled on the dispatch thread
        if (queue != nullptr) {
            ASSERT_TRUE(late.TCTask::Create("late"));
        }
        auto overBus = peer.CallLater("late.message");
        TCReply waiting = late.Next();
        auto second = peer.CallLater("late.message"); // while the first waits
        TCReply first = late.Next();
        EXPECT_TRUE(first.Answer(Message("y")));
        EXPECT_EQ(second.get(), kLate);
        EXPECT_TRUE(waiting.Answer(Message("y")));
        EXPECT_FALSE(waiting.Answer(Message("y")));
        EXPECT_EQ(overBus.get(), kLate);

        overBus = peer.CallLater("late.message");
        EXPECT_FALSE(late.Next().Answer(Message("\xff")));
        EXPECT_EQ(overBus.get(), kErrorReply);
        overBus = peer.CallLater("late.message");
        late.Next(); // destroyed unanswered
        EXPECT_EQ(overBus.get(), kErrorReply);
    }
    auto direct = SendDirectly();
    EXPECT_TRUE(late.Next().Answer(Message("y")));
    EXPECT_EQ(direct.get(), "y");
    direct = SendDirectly();
    late.Next();
    EXPECT_EQ(direct.get(), kErrorText);

    TCCall call;
    auto queued = call.Start(proxy, "late", message);
    EXPECT_TRUE(late.Next().Answer(Message("y")));
    EXPECT_EQ(queued.get().reply.GetString(), "y");
    queued = call.Start(proxy, "late", message);
    late.Next();
    EXPECT_EQ(queued.get().kind, Kind::Failed);
    queued = call.Start(proxy, "late", message);
    TCReply tooLate = late.Next();
    call.Cancel();
    EXPECT_EQ(queued.get().kind, Kind::Cancelled);
    EXPECT_FALSE(tooLate.Answer(message));
}

TEST_F(ReplyTest, WhoWantsNoAnswerGetsNone)
{
    ASSERT_TRUE(late.TCTask::Create("late"));
    ASSERT_TRUE(late.SubscribeSignal(nullptr, "signal", nullptr, nullptr));
    Server sender("sender", TCServer::SERVER_TYPE_ACTIVITY); // events of a proxy are dropped
    ASSERT_TRUE(sender.CreateDBusServer());
    const std::function<void()> sends[] = {
        [&] { EXPECT_TRUE(sender.SendMessage("late", &message, false, nullptr)); }, // by event
        [&] {
            late.TCTask::Destroy();
            EXPECT_TRUE(sender.SendMessage("late", &message, false, nullptr)); // over the bus
        },
        [&] { peer.Emit("/x", "foreign.face", "signal", kCall); },
    };
    for (const auto& send : sends) {
        late.wasEmpty = false;
        send();
        EXPECT_FALSE(late.Next().Answer(message));
        EXPECT_TRUE(late.wasEmpty);
    }
}

TEST_F(ReplyTest, EndOfTheServiceOrOfTheTimeIsTheErrorReply)
{
    auto direct = SendDirectly(10);
    TCReply waiting = late.Next();
    EXPECT_EQ(direct.get(), kErrorText);
    EXPECT_FALSE(waiting.Answer(message));

    direct = SendDirectly();
    auto overBus = peer.CallLater("late.message");
    TCReply one = late.Next(), other = late.Next();
    late.CloseDBusServer();
    EXPECT_EQ(direct.get(), kErrorText);
    late.AwaitHooks();
    EXPECT_EQ(overBus.get(), kErrorReply);
    EXPECT_FALSE(one.Answer(message));
    EXPECT_FALSE(other.Answer(message));

    ASSERT_TRUE(late.CreateDBusServer());
    Await([&] { return proxy.IsServiceAvailable("late"); });
    overBus = peer.CallLater("late.message");
    waiting = late.Next();
    late.CloseDBusServer(); // without AwaitHooks the answer still leaves
    EXPECT_TRUE(waiting.Answer(Message("y")));
    EXPECT_EQ(overBus.get(), kLate);
}

TEST_F(ReplyTest, AnswersRaceWithTheEndOfTheService)
{
    for (int round = 0; round < 50; ++round) {
        auto service = std::make_unique<Deferring>("racing", TCServer::SERVER_TYPE_ACTIVITY);
        ASSERT_TRUE(service->CreateDBusServer());
        Await([&] { return proxy.IsServiceAvailable("late.racing"); });
        auto overBus = peer.CallLater("late.racing.message");
        std::atomic<bool> answered{false};
        std::thread answer(
            [&, reply = service->Next()]() mutable { answered = reply.Answer(Message("y")); });
        service->CloseDBusServer();
        service->AwaitHooks();
        answer.join();
        service.reset();
        EXPECT_EQ(overBus.get(),
                  answered ? "('racing', uint32 0, '', 'y', [(byte 0x00,)])" : kErrorReply);
    }
}

TEST_F(ReplyTest, HookLearnsWhoCalls)
{
    EXPECT_FALSE(TCCaller::Current());
    TCCaller caller;
    std::atomic<int> hooks{0};
    const auto note = [&](TCMessage&) {
        caller = TCCaller::Current();
        ++hooks;
    };
    Hooks<> service("callee", TCServer::SERVER_TYPE_ACTIVITY);
    service.onMessage = note;
    ASSERT_TRUE(service.CreateDBusServer());
    ASSERT_TRUE(service.SubscribeSignal(nullptr, "signal", nullptr, nullptr));
    Await([&] { return proxy.IsServiceAvailable("late.callee"); });
    const std::string unique = g_dbus_connection_get_unique_name(peer.Get());

    for (int i = 0; i < 2; ++i) { // asked, then remembered
        peer.Call("late.callee.message");
        EXPECT_TRUE(caller && caller.WantsAnswer() && !caller.IsLocal());
        EXPECT_EQ(caller.UniqueName(), unique);
        EXPECT_EQ(caller.User(), geteuid());
        EXPECT_EQ(caller.Process(), getpid());
        EXPECT_TRUE(caller.IsInGroup(getegid()));
        EXPECT_FALSE(caller.IsInGroup(54321));
    }
    peer.Emit("/x", "foreign.face", "signal", kCall);
    Await([&] { return hooks == 3; });
    EXPECT_EQ(caller.UniqueName(), unique);
    EXPECT_FALSE(caller.WantsAnswer());
    EXPECT_TRUE(proxy.SendMessage("callee", &message, true, &reply));
    EXPECT_TRUE(caller.IsLocal() && caller.WantsAnswer());
    EXPECT_EQ(caller.User(), geteuid());
    EXPECT_TRUE(caller.IsInGroup(getegid()));
    EXPECT_FALSE(TCCaller::Current());

    // The peer has left before the bus is asked: nothing is known, and nobody is let in.
    auto gone = std::make_unique<RawPeer>();
    Held held(dispatcher);
    auto unanswered = gone->CallLater("late.callee.message");
    g_dbus_connection_flush_sync(gone->Get(), nullptr, nullptr);
    gone.reset();
    held.Release();
    Await([&] { return hooks == 5; });
    EXPECT_TRUE(caller);
    EXPECT_NE(caller.User(), 0U);
    EXPECT_FALSE(caller.IsInGroup(getegid()));
    unanswered.wait();
}

TEST_F(ReplyTest, EachCallerHasItsOwnTokens)
{
    TCRateLimit connections(0, 2, TCRateLimit::Per::Connection), users(0, 5), fast(1e9, 1);
    EXPECT_FALSE(users.Take()); // no hook
    Hooks<> service("limited", TCServer::SERVER_TYPE_ACTIVITY);
    std::string taken;
    service.onMessage = [&](TCMessage&) {
        taken += connections.Take() ? "c" : "-";
        taken += users.Take() ? "u" : "-";
        taken += fast.Take() ? "f" : "-";
    };
    ASSERT_TRUE(service.CreateDBusServer());
    Await([&] { return proxy.IsServiceAvailable("late.limited"); });
    const RawPeer other;
    for (int i = 0; i < 6; ++i) {
        (i < 3 ? peer : other).Call("late.limited.message");
    }
    EXPECT_EQ(taken, "cufcuf-ufcufcuf--f");
}
