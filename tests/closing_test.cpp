// Servers that end while something is on its way to them, through them or out of them.
#include <csignal>
#include <future>
#include <optional>

#include <pthread.h>

#include "BusHarness.h"

using namespace Velmora;

namespace {

constexpr char kErrorReply[] = "('', uint32 0, '', "
                               "'{\"dbus_result\":\"fail\",\"errmsg\":\"error handling\"}', "
                               "[(byte 0x00,)])";

// Stops the dispatch thread, once, at an empty info line: the first one of each callback.
class StoppedCallback
{
public:
    StoppedCallback()
    {
        OnLog([this](const std::string& line) {
            if (g_main_context_is_owner(nullptr) != 0 && line.find(m_Line) != std::string::npos &&
                !m_Done.exchange(true)) {
                m_Begun.set_value();
                m_Released.get_future().wait();
            }
        });
    }
    explicit StoppedCallback(const char* line) : StoppedCallback() { m_Line = line; }
    ~StoppedCallback() { OnLog(nullptr); }
    StoppedCallback(const StoppedCallback&) = delete;
    StoppedCallback& operator=(const StoppedCallback&) = delete;

    void AwaitBegin() { m_Begun.get_future().wait(); }
    void Release() { m_Released.set_value(); }

private:
    std::string m_Line = "[nil]\033[0m";
    std::atomic<bool> m_Done{false};
    std::promise<void> m_Begun, m_Released;
};

void AwaitDispatch()
{
    OnDispatchThread([] {});
}

std::future<std::string> CallLater(RawPeer& peer, const char* name)
{
    return std::async(std::launch::async, [&peer, name] {
        return peer.Call(name, "SendMessage", "('me', uint32 0, '', 'x')");
    });
}

} // namespace

using ClosingTest = BusTest;

TEST_F(ClosingTest, CallbackThatHasBegunEntersNoLaterServerAtItsAddress)
{
    RawPeer peer;
    for (const bool isCall : {true, false}) {
        std::optional<Server> server(std::in_place, "guest");
        ASSERT_TRUE(server->CreateDBusServer());
        ASSERT_TRUE(server->SubscribeSignal("guest", "signal", nullptr, nullptr));
        Await([&] { return server->IsServiceAvailable("guest"); });
        AwaitDispatch(); // the start signal
        StoppedCallback callback(isCall ? "[nil]\033[0m" : "signal(signal)");
        std::future<std::string> answer;
        if (isCall) {
            answer = CallLater(peer, "guest.message");
        } else {
            peer.Emit("/guest/message", "guest.message", "signal", "('me', uint32 0, '', 'x')");
        }
        callback.AwaitBegin();
        server.emplace("admin");
        ASSERT_TRUE(server->CreateDBusServer());
        ASSERT_TRUE(server->SubscribeSignal("guest", "signal", nullptr, nullptr));
        callback.Release();
        AwaitDispatch();
        if (isCall) {
            EXPECT_EQ(answer.get(), kErrorReply);
        }
        EXPECT_EQ(server->Seen(), "");
    }
}

TEST_F(ClosingTest, AnswerOfAHookThatOutlastsTheCloseLeaves)
{
    RawPeer peer;
    for (int round = 0; round < 20; ++round) {
        TaskServer app("app", TCServer::SERVER_TYPE_SERVICE, "task");
        app.transferTo = round % 2 == 0 ? &app : nullptr;
        std::promise<void> inside, closed;
        app.onMessage = [&](TCMessage&) {
            inside.set_value();
            closed.get_future().wait();
        };
        ASSERT_TRUE(app.Create("task") && app.CreateDBusServer());
        Await([&] { return app.IsServiceAvailable("app"); });
        auto answer = CallLater(peer, "app.message");
        inside.get_future().wait();
        app.CloseDBusServer();
        closed.set_value();
        EXPECT_TRUE(app.AwaitHooks());
        app.Destroy();
        EXPECT_EQ(answer.get(), "('app', uint32 0, '', 'x', [(byte 0x00,)])");
    }
}

TEST_F(ClosingTest, ProcessThatEndsByTheBookAnswersEveryCall)
{
    RawPeer peer;
    constexpr int kCalls = 120;
    for (int round = 0; round < 5; ++round) {
        GSubprocess* const service =
            g_subprocess_new(G_SUBPROCESS_FLAGS_NONE, nullptr, CLOSING_SERVICE,
                             std::to_string(kCalls).c_str(), nullptr);
        std::atomic<int> answered{0}, failed{0};
        std::vector<std::future<void>> calls;
        Await([&] {
            return peer.Call("closing.message", "None", "()").find("UnknownMethod") !=
                   std::string::npos;
        });
        for (int i = 0; i < kCalls; ++i) {
            calls.push_back(std::async(std::launch::async, [&] {
                const std::string said =
                    peer.Call("closing.message", "SendMessage", "('me', uint32 0, '', 'x')");
                ++(said == kErrorReply || said.find("('closing'") == 0 ? answered : failed);
            }));
        }
        calls.clear();
        EXPECT_EQ(failed, 0);
        EXPECT_EQ(answered, kCalls);
        EXPECT_TRUE(g_subprocess_wait_check(service, nullptr, nullptr));
        g_object_unref(service);
    }
}

TEST_F(ClosingTest, HookInsideASendGivesUpForTheCloseThatWaitsForIt)
{
    Server app("app"), act("act", TCServer::SERVER_TYPE_ACTIVITY);
    ASSERT_TRUE(app.CreateDBusServer() && act.CreateDBusServer());
    for (const char* const target : {"act", "app"}) {
        ASSERT_TRUE(app.CreateDBusServer());
        std::promise<void> inside;
        (target == std::string("act") ? act : app).onMessage = [&](TCMessage&) {
            EXPECT_TRUE(app.SubscribeSignal("act", "signal", nullptr, nullptr)); // none waits yet
            inside.set_value();
            Await(
                [] { return CountLog(kDebug, "waiting all send message/signal finished *") > 0; });
            EXPECT_FALSE(app.SubscribeSignal("act", "other", nullptr, nullptr));
            EXPECT_FALSE(app.UnSubscribeSignal("act", "signal"));
            EXPECT_FALSE(app.AwaitHooks());
        };
        ForgetLog();
        std::thread sender([&] {
            const TCMessage message = Message("x");
            TCMessage reply;
            EXPECT_TRUE(app.SendMessage(target, &message, true, &reply));
        });
        inside.get_future().wait();
        app.CloseDBusServer();
        sender.join();
        EXPECT_EQ(CountLog(kError, "app is being closed, which waits for the send *"), 3);
        EXPECT_TRUE(app.AwaitHooks());
    }
}

TEST_F(ClosingTest, SendersThatArePausedDoNotRefuseEachOther)
{
    struct Proxy : Server
    {
        Proxy() : Server("proxy", TCServer::SERVER_TYPE_PROXY) {}
        using TCServer::m_ServerMutex;
    } proxy;
    ASSERT_TRUE(proxy.CreateDBusProxy());
    signal(SIGUSR1, [](int) { g_usleep(3000); }); // wherever it meets a sender
    std::atomic<bool> over{false};
    std::vector<std::thread> senders;
    for (int i = 0; i < 3; ++i) {
        senders.emplace_back([&] {
            while (!over) {
                proxy.SendSignal("signal", nullptr); // none leaves, all pass the gate
                ForgetLog();
            }
        });
    }
    std::atomic<int> refused{0};
    OnLog([&](const std::string& line) {
        refused += line.find("Server is going to be closed!") != std::string::npos ? 1 : 0;
    });
    for (int i = 0; i < 300; ++i) {
        pthread_kill(senders[i % senders.size()].native_handle(), SIGUSR1);
        g_usleep(4000);
    }
    over = true;
    for (auto& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(refused, 0);
    std::thread([&] { proxy.m_ServerMutex.Lock(); }).join(); // a client, for good
    EXPECT_FALSE(proxy.SendSignal("signal", nullptr));
    EXPECT_EQ(refused, 1);
    OnLog(nullptr);
    proxy.m_ServerMutex.Destroy();
    proxy.m_ServerMutex.Create();
}

TEST_F(ClosingTest, NameThatComesDuringACreateIsAnnouncedByItsEnd)
{
    Server app("app"), proxy("proxy", TCServer::SERVER_TYPE_PROXY);
    ASSERT_TRUE(proxy.CreateDBusProxy());
    ASSERT_TRUE(proxy.SubscribeSignal("app", "service_start_default", nullptr, nullptr));
    OnLog([](const std::string& line) {
        if (line.find("Get register id") != std::string::npos) {
            OnLog(nullptr);
            // The dispatch thread has the name and goes on, while the create is still at work.
            Await([] { return CountLog(kInfo, "") > 0; });
            AwaitDispatch();
        }
    });
    ForgetLog();
    ASSERT_TRUE(app.CreateDBusServer());
    Await([&] { return !proxy.Seen().empty(); });
    app.CloseDBusServer();

    // A create that fails after it has asked for the name announces nothing.
    GDBusConnection* const shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    GDBusNodeInfo* const node =
        g_dbus_node_info_new_for_xml("<node><interface name='app.message'/></node>", nullptr);
    const guint taken =
        g_dbus_connection_register_object(shared, "/app/message", node->interfaces[0],
                                          &TCServer::m_gVTable, nullptr, nullptr, nullptr);
    EXPECT_FALSE(app.CreateDBusServer());
    EXPECT_EQ(CountLog(kError, "Register Obj Path Fail!"), 1);
    Await([&] { return proxy.IsServiceAvailable("app"); });
    AwaitDispatch();
    EXPECT_TRUE(proxy.IsServiceAvailable("app"));
    AwaitDispatch();
    g_dbus_connection_unregister_object(shared, taken);
    g_dbus_node_info_unref(node);
    g_object_unref(shared);
    EXPECT_EQ(proxy.Seen(), "service_start_default app:{\"service_name\":\"app\"};");
}
