// SPDX-License-Identifier: MIT
// Endpoints on a bus. Every test has a private daemon.
#include <csignal>

#include <future>
#include <optional>
#include <random>

#include <dlfcn.h>

#include "BusHarness.h"

using namespace Velmora;

namespace {

std::function<void()> g_OnRegister; // called before an object is exported

} // namespace

extern "C" guint g_dbus_connection_register_object(GDBusConnection* connection, const char* path,
                                                   GDBusInterfaceInfo* info,
                                                   const GDBusInterfaceVTable* table, gpointer data,
                                                   GDestroyNotify release, GError** error)
{
    if (g_OnRegister) {
        g_OnRegister();
    }
    static const auto real = reinterpret_cast<decltype(&g_dbus_connection_register_object)>(
        dlsym(RTLD_NEXT, "g_dbus_connection_register_object"));
    return real(connection, path, info, table, data, release, error);
}

TEST(BusNames, AreMadeLegalByteByByte)
{
    const struct
    {
        std::string name, formatted, path, busName;
    } cases[] = {{"my-app", "my_app", "/my-app", "my_app.message"},
                 {"foo.bar_1", "foo.bar_1", "/foo/bar_1", "foo.bar_1.message"},
                 {"", "", "/", ".message"},
                 {"\xc3\xa4", "__", "/\xc3\xa4", "__.message"}};
    for (const auto& c : cases) {
        std::string name = c.name;
        EXPECT_EQ(TCServerHelper::FormatDBusName(name), c.name != c.formatted);
        EXPECT_EQ(name, c.formatted);
        EXPECT_EQ(TCServerHelper::GetObjectPath(c.name), c.path);
        EXPECT_EQ(TCServer::m_GetDBusName(c.name), c.busName);
    }
    std::string process;
    TCServerHelper::GetProcessName(process);
    EXPECT_EQ(process, "bus_test");
}

TEST_F(BusTest, ForeignCallersGetTheExactBodies)
{
    Server server("my-app");
    server.transfersToNull = true; // calls stay on their thread
    ASSERT_TRUE(server.CreateDBusServer());
    RawPeer peer;
    const struct
    {
        const char *method, *body, *reply;
    } cases[] = {
        {"SendMessage", "('me', uint32 7, 't', '{ \"a\" : 1 }')",
         "('my-app', uint32 7, 't', '{\"a\":1}', [(byte 0x00,)])"},
        {"SendMessageWithBuffer", "('', uint32 0, '', '', [(byte 0,)])",
         "('my-app', uint32 0, '', '', [(byte 0x00,)])"},
        {"SendMessageWithBuffer", "('', uint32 0, '', 'x', [(byte 0,),(byte 0,)])",
         "('my-app', uint32 0, '', 'x', [(byte 0x00,), (0x00,)])"},
        {"SendMessageWithBuffer",
         "('me', uint32 5, 't', 'x', [byte 1])", // read as an empty message
         "('my-app', uint32 0, '', '', [(byte 0x00,)])"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(peer.Call("my_app.message", c.method, c.body), c.reply);
    }
    EXPECT_EQ(server.Seen(), "me:{ \"a\" : 1 };:;:x;(null):;");
    server.onMessage = [](TCMessage& answer) { answer.m_Type = "\xff"; };
    EXPECT_EQ(peer.Call("my_app.message", "SendMessage", "('', uint32 0, '', '')"), kErrorReply);
    EXPECT_EQ(CountLog(kError, "cannot reply: a text is not valid UTF-8*"), 1);
}

TEST_F(BusTest, StartUpClaimsItsNamesOnceAndCloseGivesThemBack)
{
    Server second("second"), twin("app", TCServer::SERVER_TYPE_ACTIVITY);
    Server act("act", TCServer::SERVER_TYPE_ACTIVITY);
    Server illegal("1abc", TCServer::SERVER_TYPE_ACTIVITY),
        tooEarly("lone", TCServer::SERVER_TYPE_ACTIVITY);
    ASSERT_TRUE(tooEarly.CreateDBusServer());
    EXPECT_EQ(TCServer::m_GetDBusName("lone"), "bus_test.lone.message");
    EXPECT_TRUE(proxy.CreateDBusProxy());
    ASSERT_TRUE(proxy.SubscribeSignal("app", "service_start_default", nullptr, nullptr));
    ASSERT_TRUE(app.CreateDBusServer());
    EXPECT_TRUE(app.CreateDBusServer());
    EXPECT_FALSE(second.CreateDBusServer());
    EXPECT_EQ(
        CountLog(kError, "only one eflapplication/daemon service can be created in one process!"),
        1);
    EXPECT_FALSE(twin.CreateDBusServer());
    EXPECT_FALSE(twin.CreateDBusServer());
    EXPECT_EQ(CountLog(kError, "app name has been used!"), 2);
    EXPECT_TRUE(act.CreateDBusServer());
    EXPECT_EQ(TCServer::m_GetDBusName("act"), "app.act.message");
    EXPECT_FALSE(illegal.CreateDBusServer());
    EXPECT_EQ(CountLog(kError, "Request bus name fail!"), 1);
    twin.CloseDBusServer(); // leaves the entry of the other server
    EXPECT_EQ(TCServer::m_GetDbusServer("app"), &app);
    EXPECT_EQ(TCServer::m_GetDbusServer("second"), nullptr);
    Await([&] { return proxy.IsServiceAvailable("app.act") && proxy.Seen() == kAppStarts; });
    EXPECT_TRUE(proxy.IsServiceAvailable("app"));
    EXPECT_FALSE(proxy.IsServiceAvailable("nobody"));
    EXPECT_FALSE(app.AwaitHooks());

    // Each start is announced; a closed server has no name, and can open again.
    std::string starts = kAppStarts;
    for (int i = 0; i < 2; ++i) {
        app.CloseDBusServer();
        EXPECT_FALSE(proxy.IsServiceAvailable("app"));
        ForgetLog();
        app.CloseDBusServer();
        EXPECT_EQ(CountLog(kDebug, "app has closed."), 1);
        EXPECT_TRUE(app.AwaitHooks());
        ASSERT_TRUE(app.CreateDBusServer());
        starts += kAppStarts;
        Await([&] { return proxy.Seen() == starts; });
    }
    EXPECT_TRUE(proxy.IsServiceAvailable("app"));
    AwaitDispatch();
    EXPECT_EQ(proxy.Seen(), starts); // none twice

    // A server of an unknown type takes only its entry, here during the create of another server.
    Server odd("app", static_cast<TCServer::TCServerType>(3));
    app.CloseDBusServer();
    OnLog([&](const std::string& line) {
        if (line.find("Get register id") != std::string::npos) {
            OnLog(nullptr);
            EXPECT_TRUE(odd.CreateDBusServer());
        }
    });
    EXPECT_FALSE(app.CreateDBusServer());
    EXPECT_EQ(TCServer::m_GetDbusServer("app"), &odd);
}

TEST_F(BusTest, SendsTakeTheRouteThatTheTargetAllows)
{
    TaskServer task("task", TCServer::SERVER_TYPE_ACTIVITY, "task");
    TCMessage stale = Message("stale");
    stale.m_Json["n"] = 1; // only a copy of the message has this as its text
    EXPECT_FALSE(app.SendMessage("task", &stale, true, &reply));
    EXPECT_EQ(CountLog(kError, "dbus connection is not open"), 1);
    Server::m_PendingCallNotify(nullptr, nullptr, &app); // before the first create
    EXPECT_EQ(CountLog(kError, "bus connection is NULL"), 0);
    ASSERT_TRUE(app.CreateDBusServer() && task.CreateDBusServer() && task.Create("task"));

    EXPECT_TRUE(SendMessage("app", "task", &stale, true, &reply)); // direct
    EXPECT_EQ(task.thread, g_thread_self());
    EXPECT_EQ(reply.GetMessage(), "{\"n\":1}");
    EXPECT_TRUE(app.SendMessage("task", &stale, false, nullptr)); // by event
    Await([&] { return task.Seen() == "app:{\"n\":1};app:{\"n\":1};"; });
    EXPECT_NE(task.thread, g_thread_self());
    task.transferTo = &task;
    EXPECT_TRUE(app.SendMessage("task", &stale, false, &reply)); // over the bus, then moved
    Await([&] { return app.Seen() == "reply task:{\"n\":1};"; });
    EXPECT_EQ(CountLog(kInfo, "send internal event success"), 1);
    task.Destroy();
    EXPECT_TRUE(app.SendMessage("task", &stale, false, nullptr, -5)); // no queue: the bus
    Await([&] { return task.Seen().size() == 4 * sizeof "app:{\"n\":1}"; });

    task.onMessage = [](TCMessage& answer) { answer.m_Json["dbus_result"] = "fail"; };
    EXPECT_TRUE(app.SendMessage("task", &stale, true, &reply));
    EXPECT_EQ(std::as_const(reply).GetMessage(), R"({"dbus_result":"fail","n":1})");
    ASSERT_TRUE(proxy.CreateDBusProxy());
    EXPECT_TRUE(
        proxy.SendMessage("task", &stale, true, &reply)); // direct, too: "fail" is not looked at
    EXPECT_FALSE(proxy.SendMessage("nobody", &stale, true, &reply, 5000));
    EXPECT_EQ(CountLog(kError, "Fail to invoking sync message call(*"), 1);
    EXPECT_EQ(app.m_SendingCount, 0U);
}

TEST_F(BusTest, WhatTheBusCannotCarryIsRefusedAndTheConnectionLives)
{
    ASSERT_TRUE(proxy.CreateDBusProxy());
    TCMessage good = Message("x"), type = good;
    type.m_Type = std::string("a\0b", 3);
    const TCMessage huge = Message("x", 4194048), text = Message("\xff");
    const struct
    {
        const char* dest;
        const TCMessage* message;
        int timeout;
    } cases[] = {{"1digit", &good, -1}, {"a..b", &good, -1}, {"app", &text, -1},
                 {"app", &type, -1},    {"app", &huge, -1},  {"app", &good, -2}};
    for (const auto& c : cases) {
        ForgetLog();
        EXPECT_FALSE(proxy.SendMessage(c.dest, c.message, true, &reply, c.timeout));
        EXPECT_FALSE(proxy.SendMessage(c.dest, c.message, true, &reply, c.timeout));
        EXPECT_EQ(CountLog(kError, "cannot send message to *"), 2) << c.dest;
    }
    EXPECT_FALSE(proxy.SendMessage("app", nullptr, true, &reply));
    EXPECT_FALSE(proxy.SendMessage("app", &good, true, nullptr));
    EXPECT_FALSE(proxy.SendMessage("", &good, true, &reply));
    EXPECT_FALSE(proxy.SendSignal("signal", &good)); // a proxy has no path
    Server nameless("\xff", TCServer::SERVER_TYPE_PROXY);
    EXPECT_TRUE(nameless.CreateDBusProxy());
    EXPECT_FALSE(nameless.SendMessage("app", &good, false, nullptr));
    EXPECT_FALSE(proxy.SubscribeSignal("1", "signal", nullptr, nullptr));
    EXPECT_FALSE(proxy.SubscribeSignal(nullptr, "no member", nullptr, nullptr));
    EXPECT_FALSE(proxy.IsServiceAvailable(std::string(33U << 20U, 'a').c_str()));
    ASSERT_TRUE(app.CreateDBusServer());
    for (const auto& name : {std::string("no member"), std::string(256, 'm'), std::string()}) {
        EXPECT_FALSE(app.SendSignal(name.c_str(), &good));
    }
    EXPECT_FALSE(app.SendSignal("signal", &huge));
    const TCMessage largest = Message("x", 4194047); // a byte less
    EXPECT_TRUE(app.SendSignal("signal", &largest));
    std::string longest(33554432 - 2048 - sizeof "app" + 1, 'x');
    EXPECT_TRUE(app.SendSignal("signal", &(good = Message(longest))));
    EXPECT_FALSE(app.SendSignal("signal", &(good = Message(longest += 'x'))));
    Await([&] { return proxy.IsServiceAvailable("app"); });
}

TEST_F(BusTest, SignalsReachTheCallbackOfTheirKey)
{
    ASSERT_TRUE(app.CreateDBusServer() && proxy.CreateDBusProxy());
    const auto note = [](const char* from, const char* signal, TCMessage* got, void* data) {
        unsigned char* bytes = nullptr;
        static_cast<Server*>(data)->Note(Text(signal) + "<" + Text(from) + ":" + got->GetMessage() +
                                         std::to_string(got->GetBuffer(bytes)));
    };
    EXPECT_TRUE(app.SubscribeSignal("app", "one", note, &app));
    EXPECT_TRUE(app.SubscribeSignal("app", "one", nullptr, nullptr)); // the first stays
    EXPECT_TRUE(app.SubscribeSignal(nullptr, "any", note, &app));
    EXPECT_TRUE(app.SubscribeSignal(nullptr, "any", nullptr, nullptr));
    EXPECT_TRUE(proxy.SubscribeSignal("app", "one", nullptr, nullptr));
    EXPECT_FALSE(SubscribeSignal("app", nullptr, "one", note, &app));
    EXPECT_FALSE(SubscribeKeySignal("app", "a", "b", note, &app));
    EXPECT_FALSE(app.UnSubscribeSignal(nullptr, "any"));
    TCMessage full = Message("", 3);
    full.m_Json["k"] = 1;
    EXPECT_TRUE(SendSignal("app", "one", &full));
    EXPECT_TRUE(app.SendSignal("any", nullptr));
    RawPeer peer;
    EXPECT_TRUE(peer.Emit("/x", "foreign.face", "any", "('unknown', 'shape')"));
    Await([&] { return app.Seen() == "one<app:{\"k\":1}3;any<app:0;any<(null):0;"; });
    Await([&] { return proxy.Seen() == "one app:{\"k\":1};"; });
    EXPECT_TRUE(app.UnSubscribeSignal("app", "one"));
    EXPECT_TRUE(app.SendSignal("one", nullptr));
    Await([&] { return proxy.Seen() == "one app:{\"k\":1};one app:;"; });
    EXPECT_EQ(app.Seen().find("one<app:0"), std::string::npos);
}

TEST_F(BusTest, ForeignPeersMayAnswerAnythingOrDie)
{
    ASSERT_TRUE(proxy.CreateDBusProxy());
    const struct
    {
        const char* mode;
        bool sent;
        std::string reply, seen;
    } cases[] = {
        {"die", false, "before", ""},
        {"mute", false, "before", ""},
        {"(1, 'foreign')", true, "before", ""},
        {"('p', uint32 1, '', '')", true, "", ""},
        {"('p', uint32 1, 't', '')", true, "", "reply p:t;"},
        {"('p', uint32 1, '', '', [(byte 7,)])", true, "", "reply p:;"},
        {"('p', uint32 1, '', '5')", true, "5", "reply p:5;"},
        {"('p', uint32 1, '', '{\"dbus_result\":{}}')", true, "{\"dbus_result\":{}}",
         "reply p:{\"dbus_result\":{}};"},
        {"('p', uint32 1, '', '{\"dbus_result\":\"fail\"}')", false, "{\"dbus_result\":\"fail\"}",
         "reply p:{\"dbus_result\":\"fail\"};"},
    };
    std::string seen;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        Await([&] { return !proxy.IsServiceAvailable("a-peer"); }); // the peer before it is gone
        const ForeignService peer("a_peer.message", c.mode);
        Await([&] { return proxy.IsServiceAvailable("a-peer"); });
        reply = Message("before");
        proxy.SendMessage("a-peer", &message, false, &reply);
        EXPECT_EQ(proxy.SendMessage("a-peer", &message, true, &reply, 300),
                  c.sent); // ends after it
        EXPECT_EQ(reply.GetMessage(), c.reply);
        AwaitDispatch();
        seen += c.seen;
        Await([&] { return proxy.Seen() == seen; });
    }
}

TEST_F(BusTest, CallBetweenTheNameAndTheObjectWaitsAndNothingElseDoes)
{
    Server act("act", TCServer::SERVER_TYPE_ACTIVITY);
    ASSERT_TRUE(act.CreateDBusServer());
    RawPeer peer;
    std::future<std::string> answer;
    g_OnRegister = [&] {
        answer = std::async(std::launch::async, [&] {
            std::string said;
            do {
                said = peer.Call("app.message");
            } while (said.find("ServiceUnknown") != std::string::npos);
            return said;
        });
        answer.wait_for(std::chrono::milliseconds(50)); // long enough for an error to arrive
    };
    // A slow log service delays no message, not even for the second that a hold may last.
    const std::string other = TCServer::m_GetDBusName("act");
    OnLog([&](const std::string& line) {
        if (line.find("Register Obj Path(/app") != std::string::npos) {
            Await([&] {
                return peer.Call(other, "SendMessage", kCall, 900).find("Timeout") ==
                       std::string::npos;
            });
        }
    });
    ASSERT_TRUE(app.CreateDBusServer());
    OnLog(nullptr);
    g_OnRegister = nullptr;
    EXPECT_EQ(answer.get(), "('app', uint32 0, '', 'x', [(byte 0x00,)])");
}

TEST_F(BusTest, NameThatComesBackIsAnnouncedAgain)
{
    ASSERT_TRUE(proxy.CreateDBusProxy());
    ASSERT_TRUE(proxy.SubscribeSignal("app", "service_start_default", nullptr, nullptr));
    RawPeer owner; // the server takes the name over from it
    g_bus_own_name_on_connection(owner.Get(), "app.message",
                                 G_BUS_NAME_OWNER_FLAGS_ALLOW_REPLACEMENT, nullptr, nullptr,
                                 nullptr, nullptr);
    Await([&] { return proxy.IsServiceAvailable("app"); });
    ASSERT_TRUE(app.CreateDBusServer());
    Await([&] { return proxy.Seen() == kAppStarts; });
    {
        const ForeignService thief("app.message", "('thief', uint32 0, '', 'mine')");
        Await([&] {
            return proxy.SendMessage("app", &message, false, &reply) &&
                   proxy.Seen().find("thief:mine") != std::string::npos;
        });
    }
    Await([&] { return proxy.Seen().rfind(kAppStarts) > 0; });
}

TEST_F(BusTest, CloseLosesNothingThatWasSent)
{
    std::atomic<int> received{0};
    app.onMessage = [&](TCMessage&) { ++received; };
    ASSERT_TRUE(app.CreateDBusServer());
    Await([&] { return app.IsServiceAvailable("app"); });
    for (int round = 1; round <= 5; ++round) {
        ASSERT_EQ(std::system(QUICK_SENDER), 0);
        Await([&] { return received == 50 * round; });
    }
}

TEST_F(BusTest, MovedCallsThatAreNeverHandledGetTheErrorReply)
{
    for (const bool serverEnds : {false, true}) {
        Loop loop;
        Queue queue; // never dispatched
        ASSERT_TRUE(queue.Init(loop.Get()));
        std::optional<Noted<>> server(std::in_place, "server");
        server->transferTo = &queue;
        ASSERT_TRUE(server->CreateDBusServer());
        RawPeer peer;
        auto answer = peer.CallLater("server.message");
        Await([&] { return queue.CountEvent() == 1; });
        server->CloseDBusServer();
        if (serverEnds) {
            server.reset();
        } else {
            queue.Final();
        }
        EXPECT_EQ(answer.get(), kErrorReply);
        loop.Drain();
        EXPECT_EQ(server ? server->Seen() : "", "");
    }
}

TEST_F(BusTest, TransferredEventMayNameAnything)
{
    Loop loop;
    Queue queue;
    ASSERT_TRUE(queue.Init(loop.Get()) && app.CreateDBusServer());
    const struct
    {
        const char* names;
        int priority;
        const char* line;
    } cases[] = {{"5", kError, "Couldn't find  dbus server, subscribe fail"},
                 {"[1]", kError, "Couldn't find  dbus server, subscribe fail"},
                 {R"({"from":{"a":1}})", kError, "Couldn't find  dbus server, subscribe fail"},
                 {R"({"from":5})", kError, "Couldn't find 5 dbus server, subscribe fail"},
                 {R"({"from":"app"})", kError, "No dest information"},
                 {R"({"from":"app","dest":[1]})", kError, "No dest information"},
                 {R"({"from":"app","dest":"app"})", kInfo, "send sync message in one process"},
                 {nullptr, kInfo, "transfer async internal event to sync message call"}};
    for (const auto& c : cases) {
        TCEvent event = Event(&queue, EVENT_TRANSFER_MESSAGE);
        event.data.SetMessage(c.names != nullptr ? c.names : R"({"from":"app","dest":"app"})");
        event.param.p = c.names != nullptr ? new TCMessage : nullptr; // t_Clear frees it
        ForgetLog();
        EXPECT_TRUE(TCEventIO::SendEvent(&event));
        loop.Drain();
        EXPECT_EQ(CountLog(c.priority, c.line), 1) << c.line;
    }
    EXPECT_EQ(app.Seen(), "app:;");
}

TEST_F(BusTest, ServerDestroyedWhileOpenIsNotLookedAt)
{
    // Never closed. A server of this type takes only its entry.
    constexpr auto odd = static_cast<TCServer::TCServerType>(3);
    std::optional<TCServer> server(std::in_place, "lost", odd);
    ASSERT_TRUE(server->CreateDBusServer());
    server.emplace("heir", odd); // has the same address
    ASSERT_TRUE(server->CreateDBusServer());
    EXPECT_EQ(TCServer::m_GetDBusName("lost"), "lost.message");
    EXPECT_FALSE(SendSignal("lost", "signal", nullptr));
    server.reset();
    EXPECT_TRUE(app.CreateDBusServer());
}

TEST_F(BusTest, ManyThreadsOpenCloseSubscribeAndSendOnTheSameServers)
{
    TaskServer act("act", TCServer::SERVER_TYPE_ACTIVITY, "act");
    act.transferTo = &act;
    ASSERT_TRUE(act.Create("act"));
    TCServer* const servers[] = {&app, &act, &proxy};
    const TCMessage json = Message("{\"n\":1}", 5);
    const TCSignalCallback drop = [](const char*, const char*, TCMessage*, void*) {};
    const std::function<void(TCServer&, const char*)> actions[] = {
        [&](TCServer& server, const char*) { server.CreateDBusServer(); },
        [&](TCServer& server, const char*) { server.CreateDBusServer(); }, // twice as often
        [&](TCServer& server, const char*) { (server.CloseDBusServer(), server.AwaitHooks()); },
        [&](TCServer& server, const char* to) { server.SubscribeSignal(to, "s", drop, nullptr); },
        [&](TCServer& server, const char* to) {
            server.SubscribeSignal(to, "s", nullptr, nullptr);
        },
        [&](TCServer& server, const char* to) { server.UnSubscribeSignal(to, "s"); },
        [&](TCServer& server, const char*) { server.SendSignal("s", &json); },
        [&](TCServer& server, const char* to) { server.SendMessage(to, &json, false, nullptr); },
        [&](TCServer& server, const char* to) { server.SendMessage(to, &json, false, &reply); },
        [&](TCServer& server, const char* to) {
            TCMessage own;
            server.SendMessage(to, &json, true, &own, 5000);
        },
        [&](TCServer&, const char* to) { // while others talk to it
            TCScope<TaskServer> brief("brief", TCServer::SERVER_TYPE_ACTIVITY, "brief");
            brief->SubscribeSignal(to, "s", nullptr, nullptr);
        },
    };
    const char* const targets[] = {"app", "act", "brief"};
    std::vector<std::thread> threads;
    for (unsigned int t = 1; t <= 4; ++t) {
        threads.emplace_back([&, random = std::minstd_rand(t)]() mutable {
            for (int i = 0; i < 300; ++i) {
                TCServer& server = *servers[random() % std::size(servers)];
                actions[random() % std::size(actions)](server,
                                                       targets[random() % std::size(targets)]);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (TCServer* const server : servers) {
        server->CloseDBusServer();
        EXPECT_TRUE(server->AwaitHooks());
    }
    EXPECT_TRUE(TCServer::m_CreatedDbusServers.empty());
    EXPECT_EQ(app.m_SendingCount + act.m_SendingCount + proxy.m_SendingCount, 0U);
    ASSERT_TRUE(proxy.CreateDBusProxy() && app.CreateDBusServer());
    Await([&] { return proxy.IsServiceAvailable("app"); });
    act.Destroy();
}
