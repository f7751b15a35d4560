// SPDX-License-Identifier: MIT
// Servers that close while messages arrive, hooks run or sends are under way.
#include <csignal>
#include <future>
#include <optional>

#include <pthread.h>

#include "BusHarness.h"

using namespace Velmora;

namespace {

// Stops the dispatch thread once, when it logs a line that contains the text.
class StoppedCallback
{
public:
    explicit StoppedCallback(const std::string& text)
    {
        OnLog([this, text](const std::string& line) {
            if (g_main_context_is_owner(nullptr) != 0 && line.find(text) != std::string::npos &&
                !m_Done.exchange(true)) {
                m_Begun.set_value();
                m_Released.get_future().wait();
            }
        });
    }
    ~StoppedCallback() { OnLog(nullptr); }

    void AwaitBegin() { m_Begun.get_future().wait(); }
    void Release() { m_Released.set_value(); }

private:
    std::atomic<bool> m_Done{false};
    std::promise<void> m_Begun, m_Released;
};

gboolean LogHold(gpointer /*data*/)
{
    VELMORA_LOGI("dispatch thread is held");
    return G_SOURCE_REMOVE;
}

} // namespace

using ClosingTest = BusTest;

TEST_F(ClosingTest, CallbackThatHasBegunEntersNoServerAfterItsLife)
{
    const ForeignService foreign("peer.message", "('p', uint32 1, '', '5')");
    ASSERT_TRUE(proxy.CreateDBusProxy());
    Await([&] { return proxy.IsServiceAvailable("peer"); });
    RawPeer peer;
    std::optional<Noted<>> server; // ended by its destructor alone, or by AwaitHooks
    std::future<std::string> answer;
    const struct
    {
        const char* line; // the dispatch thread stops here until the server has ended
        std::function<void()> arrive;
    } cases[] = {
        {"m_DObjectHandler(", [&] { answer = peer.CallLater("guest.message"); }},
        {"signal(signal)", [&] { peer.Emit("/x", "foreign.face", "signal", kCall); }},
        {"dispatch thread is held",
         [&] {
             g_timeout_add(0, LogHold, nullptr);
             EXPECT_TRUE(server->SendMessage("peer", &message, false, &reply));
             EXPECT_TRUE(
                 server->SendMessage("peer", &message, true, &reply)); // both replies have arrived
         }},
    };
    const auto open = [&](const char* name) {
        EXPECT_TRUE(server->CreateDBusServer());
        EXPECT_TRUE(server->SubscribeSignal(nullptr, "signal", nullptr, nullptr));
        Await([&] { return server->IsServiceAvailable(name); });
    };
    for (const bool replaced : {false, true}) { // otherwise opened again
        for (const auto& c : cases) {
            SCOPED_TRACE(std::to_string(replaced) + c.line);
            server.emplace("guest");
            open("guest");
            AwaitDispatch(); // of the start signal
            StoppedCallback callback(c.line);
            c.arrive();
            callback.AwaitBegin();
            server->CloseDBusServer();
            if (replaced) {
                server.emplace("admin"); // has the same address
                open("admin");
            } else {
                EXPECT_TRUE(server->AwaitHooks());
                open("guest");
            }
            const std::string seen = server->Seen();
            callback.Release();
            AwaitDispatch();
            EXPECT_EQ(server->Seen(), seen);
            EXPECT_TRUE(!answer.valid() || answer.get() == kErrorReply);
            server->CloseDBusServer();
        }
    }
}

TEST_F(ClosingTest, AnswerOfAHookThatOutlastsTheCloseLeaves)
{
    RawPeer peer;
    for (int round = 0; round < 20; ++round) {
        TaskServer task("task", TCServer::SERVER_TYPE_SERVICE, "task");
        task.transferTo = round % 2 == 0 ? &task : nullptr;
        std::atomic<bool> inside{false}, closed{false};
        task.onMessage = [&](TCMessage&) {
            inside = true;
            Await([&] { return closed.load(); });
            EXPECT_TRUE(round % 3 == 0 || task.AwaitHooks()); // waits for other hooks only
        };
        ASSERT_TRUE(task.Create("task") && task.CreateDBusServer());
        Await([&] { return task.IsServiceAvailable("task"); });
        auto answer = peer.CallLater("task.message");
        Await([&] { return inside.load(); });
        auto next = peer.CallLater("task.message"); // is queued after the hook
        peer.Call("org.freedesktop.DBus", "GetId", "()");
        EXPECT_TRUE(task.IsServiceAvailable("task")); // its answer arrives after that call
        task.CloseDBusServer();
        closed = true;
        EXPECT_TRUE(task.AwaitHooks());
        task.Destroy();
        EXPECT_EQ(answer.get(), "('task', uint32 0, '', 'x', [(byte 0x00,)])");
        EXPECT_EQ(next.get().find("NoReply"), std::string::npos);
    }
}

TEST_F(ClosingTest, ProcessThatEndsByTheBookAnswersEveryCall)
{
    RawPeer peer;
    constexpr int kCalls = 120;
    for (int round = 0; round < 5; ++round) {
        Support::ChildProcess service({CLOSING_SERVICE, std::to_string(kCalls).c_str()});
        std::atomic<int> answered{0}, failed{0};
        std::vector<std::future<void>> calls(kCalls);
        Await([&] {
            return peer.Call("closing.message", "None", "()").find("UnknownMethod") !=
                   std::string::npos;
        });
        for (auto& call : calls) {
            call = std::async(std::launch::async, [&] {
                const std::string said = peer.Call("closing.message");
                ++(said == kErrorReply || said.find("('closing'") == 0 ? answered : failed);
            });
        }
        calls.clear();
        EXPECT_EQ(failed, 0);
        EXPECT_EQ(answered, kCalls);
        EXPECT_TRUE(service.EndsWell());
    }
}

TEST_F(ClosingTest, CloseWaitsForASendInsideWhichAHookGivesUpForIt)
{
    Server act("act", TCServer::SERVER_TYPE_ACTIVITY);
    ASSERT_TRUE(app.CreateDBusServer() && act.CreateDBusServer());
    for (const char* const target : {"act", "app"}) {
        ASSERT_TRUE(app.CreateDBusServer());
        std::promise<void> inside;
        (target == std::string("act") ? act : app).onMessage = [&](TCMessage&) {
            EXPECT_TRUE(
                app.SubscribeSignal("act", "signal", nullptr, nullptr)); // no close waits yet
            inside.set_value();
            Await(
                [] { return CountLog(kDebug, "waiting all send message/signal finished *") > 0; });
            EXPECT_FALSE(app.SendSignal("late", nullptr));
            EXPECT_GE(CountLog(kError, "Server is going to be closed!"),
                      1); // the start signal, too
            EXPECT_EQ(CountLog(kDebug, "all send message/signal finished"), 0);
            EXPECT_FALSE(app.SubscribeSignal("act", "other", nullptr, nullptr));
            EXPECT_FALSE(app.UnSubscribeSignal("act", "signal"));
            EXPECT_FALSE(app.AwaitHooks());
        };
        ForgetLog();
        std::thread sender([&] { EXPECT_TRUE(app.SendMessage(target, &message, true, &reply)); });
        inside.get_future().wait();
        app.CloseDBusServer();
        sender.join();
        EXPECT_EQ(CountLog(kError, "app is being closed, which waits for the send *"), 3);
        EXPECT_TRUE(app.AwaitHooks());
    }
}

TEST_F(ClosingTest, SendersThatArePausedDoNotRefuseEachOther)
{
    ASSERT_TRUE(proxy.CreateDBusProxy());
    signal(SIGUSR1, [](int) { g_usleep(3000); }); // pauses a sender at any point
    std::atomic<bool> over{false};
    std::thread senders[3];
    for (auto& sender : senders) {
        sender = std::thread([&] {
            while (!over) {
                proxy.SendSignal("signal", nullptr); // passes the gate; a proxy sends no signal
                ForgetLog();
            }
        });
    }
    std::atomic<int> refused{0};
    OnLog([&](const std::string& line) {
        refused += line.find("Server is going to be closed!") != std::string::npos ? 1 : 0;
    });
    for (unsigned int i = 0; i < 300; ++i) {
        pthread_kill(senders[i % std::size(senders)].native_handle(), SIGUSR1);
        g_usleep(4000);
    }
    over = true;
    for (auto& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(refused, 0);
    std::thread([&] { proxy.m_ServerMutex.Lock(); }).join(); // and never unlocked
    EXPECT_FALSE(proxy.SendSignal("signal", nullptr));
    EXPECT_EQ(refused, 1);
    OnLog(nullptr);
    proxy.m_ServerMutex.Destroy();
    proxy.m_ServerMutex.Create();
}

TEST_F(ClosingTest, NameThatComesDuringACreateIsAnnouncedByItsEnd)
{
    ASSERT_TRUE(proxy.CreateDBusProxy());
    ASSERT_TRUE(proxy.SubscribeSignal("app", "service_start_default", nullptr, nullptr));
    OnLog([this](const std::string& line) {
        if (line.find("Get register id") != std::string::npos) {
            OnLog(nullptr);
            // The dispatch thread gets the name and goes on while the create is still running.
            Await([] { return CountLog(kInfo, "") > 0; });
            AwaitDispatch();
        }
    });
    ForgetLog();
    ASSERT_TRUE(app.CreateDBusServer());
    Await([&] { return !proxy.Seen().empty(); });
    app.CloseDBusServer();

    // A create that fails after it has asked for the name announces nothing.
    g_autoptr(GDBusConnection) shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_autoptr(GDBusNodeInfo) node =
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
    EXPECT_EQ(proxy.Seen(), kAppStarts);
}
