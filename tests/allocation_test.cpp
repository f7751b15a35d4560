// Memory that runs out at any point of a send or a parse, or is kept. Without the capture of the
// log, which allocates.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

#include <malloc.h>

#include "BusHarness.h"

using namespace Velmora;

namespace {

// Counts the allocations of this thread down to the one that fails; 0 lets all succeed.
thread_local int g_UntilFailure = 0;

std::atomic<std::size_t> g_InUse{0}; // bytes

// Runs a send with every one of its allocations failing in turn, and each time a check of what that
// has left. Returns how often it was handed on all the same.
int FailEachAllocation(const std::function<bool()>& send, const std::function<void()>& check,
                       bool refuses = false)
{
    int sent = 0;
    bool refused = false;
    for (int n = 1;; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        bool accepted = false, threw = false;
        g_UntilFailure = n;
        try {
            accepted = send();
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        const bool allSucceeded = std::exchange(g_UntilFailure, 0) > 0;
        check();
        sent += accepted ? 1 : 0;
        if (allSucceeded || testing::Test::HasFailure()) {
            EXPECT_TRUE(accepted);
            EXPECT_GT(n, 3); // it has allocated at all
            EXPECT_EQ(refused, refuses);
            return sent;
        }
        refused = refused || !(threw || accepted);
    }
}

} // namespace

void* operator new(std::size_t size)
{
    void* const memory = g_UntilFailure > 0 && --g_UntilFailure == 0 ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    g_InUse += malloc_usable_size(memory);
    return memory;
}
void* operator new[](std::size_t size)
{
    return operator new(size);
}
void operator delete(void* memory) noexcept
{
    g_InUse -= malloc_usable_size(memory);
    std::free(memory);
}
void operator delete[](void* memory) noexcept
{
    operator delete(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    operator delete(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept
{
    operator delete(memory);
}

TEST(Allocation, FailedParseOrGenerateLeavesThePayloadWhole)
{
    const std::string text = R"({"list": [0, "a text that stays inside of no string"]})";
    const std::string longer = text + text;
    TCData data(text);
    std::thread([&] { // which makes its reader and its writer here
        FailEachAllocation(
            [&] {
                data.m_Json = Json::Value();
                return data.Parse();
            },
            [&] {
                EXPECT_TRUE(data.m_Json.isNull() || data.m_Json["list"].size() == 2);
                EXPECT_EQ(data.GetMessage(), text);
            });
        g_UntilFailure = 1;
        EXPECT_THROW(data.SetMessage(longer), std::bad_alloc);
        EXPECT_EQ(data.m_Json["list"].size(), 2U); // so far nothing has changed
        const std::string compact = TCData(data).GetString();
        FailEachAllocation(
            [&] {
                data.Generate();
                return true;
            },
            [&] { EXPECT_TRUE(data.GetMessage() == text || data.GetMessage() == compact); });
        EXPECT_EQ(data.GetMessage(), compact);
    })
        .join();
}

TEST(Allocation, LargeTextLeavesNothingToItsThread)
{
    const std::string large(1000000, 'x');
    TCData("[1]").Generate();
    const std::size_t before = g_InUse;
    TCData("/*" + large + "*/[\"" + large + "\"]").Generate();
    TCData("[\"" + large).Generate(); // not JSON
    EXPECT_LT(g_InUse, before + 10000);
}

TEST(Allocation, FailedPostQueuesNothingAndHoldsNoLock)
{
    for (const auto send : {&SendEvent, &SendUrgentEvent, &SendSyncEvent}) {
        Task task("task");
        ASSERT_TRUE(task.Create("task"));
        std::string expected;
        const int sent = FailEachAllocation(
            [&] {
                TCEvent event = Event(&task, 7);
                event.data.m_Json["key"] = "a value that is too long to stay inside of a string";
                return send(&event);
            },
            [&] { // through the loop's thread, which needs the lock as well
                TCEvent event = Event(&task, 8);
                EXPECT_TRUE(SendSyncEvent(&event));
                EXPECT_EQ(task.CountEvent(), 0U);
                expected += "e8 ";
            });
        EXPECT_EQ(sent, 1);
        task.Destroy();
        expected += send == &SendSyncEvent ? "e7 e1 c1 " : "e7 c7 e1 c1 ";
        // The one that was accepted came before the last of the others.
        expected.replace(expected.rfind("e8 "), 3, "").insert(expected.rfind("e1"), "e8 ");
        EXPECT_EQ(task.seen, expected);
    }
}

TEST(Allocation, FailedSendOfAServerSendsNothingAndIsNotCountedOn)
{
    const Dispatcher dispatcher;
    const ForeignService foreign("peer.message",
                                 "('p', uint32 1, 'type', '{\"n\":5}', [(byte 1,)])");
    Server app("app"), act("act", TCServer::SERVER_TYPE_ACTIVITY);
    TaskServer task("task", TCServer::SERVER_TYPE_ACTIVITY, "task");
    ASSERT_TRUE(app.CreateDBusServer() && act.CreateDBusServer() && task.CreateDBusServer());
    ASSERT_TRUE(task.Create("task") && act.SubscribeSignal("app", "signal", nullptr, nullptr));
    Await([&] { return app.IsServiceAvailable("peer"); });

    const TCMessage message =
        Message("{\"text\":\"which is too long to stay inside of a string\"}", 99);
    const struct
    {
        const char* route;
        std::function<bool()> send;
        std::function<std::string()> seen; // one ";" for each arrival; a hook that ran may throw
        bool isAnswered = false;           // then the answer finds no memory, too
    } cases[] = {
        {"call",
         [&] {
             TCMessage reply;
             return app.SendMessage("act", &message, true, &reply);
         },
         {}},
        {"event", [&] { return app.SendMessage("task", &message, false, nullptr); },
         [&] { return task.Seen(); }},
        {"bus", [&] { return act.SendMessage("app", &message, false, nullptr); },
         [&] { return app.Seen(); }},
        {"bus, with a reply",
         [&] {
             TCMessage reply;
             return app.SendMessage("peer", &message, false, &reply);
         },
         [&] { return app.Seen(); }},
        {"bus, awaited",
         [&] {
             TCMessage reply;
             return app.SendMessage("peer", &message, true, &reply);
         },
         {},
         true},
        {"signal", [&] { return app.SendSignal("signal", &message); }, [&] { return act.Seen(); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.route);
        const auto arrivals = [&] {
            const std::string seen = c.seen ? c.seen() : "";
            return std::count(seen.begin(), seen.end(), ';');
        };
        std::ptrdiff_t expected = arrivals();
        const auto check = [&] {
            std::thread([&] { EXPECT_TRUE(c.send()); }).join(); // finds no lock held
            // Not at once: the task's thread delivers an event by a send.
            Await([&] { return app.m_SendingCount == 0 && act.m_SendingCount == 0; });
            ++expected;
        };
        expected += FailEachAllocation(c.send, check, c.isAnswered);
        Await([&] { return !c.seen || arrivals() >= expected; });
        EXPECT_TRUE(!c.seen || arrivals() == expected);
    }
    // Not on this thread, for whose own hooks it would not wait.
    std::thread([&] {
        act.CloseDBusServer();
        EXPECT_TRUE(act.AwaitHooks());
    }).join();
    task.CloseDBusServer();
    task.Destroy();
}

TEST(Allocation, WhatArrivesWithoutMemoryIsAnsweredOrDropped)
{
    struct Receiver : TaskServer
    {
        Receiver() : TaskServer("app", SERVER_TYPE_SERVICE, "task") {}
        bool IfTransferMessage(const char* from, const TCMessage* message,
                               TCEventIO*& target) override
        {
            const int left = std::exchange(g_UntilFailure, 0); // the hook is the client's
            const bool moves = TaskServer::IfTransferMessage(from, message, target);
            g_UntilFailure = left;
            return moves;
        }
        bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                               const char* signalName) override
        {
            const int left = std::exchange(g_UntilFailure, 0);
            allSucceeded = signalName != nullptr && left > 0;
            TaskServer::IfMessageReceived(from, message, reply, signalName);
            g_UntilFailure = left;
            return true;
        }
        bool IfMessageReplied(const char* from, const TCMessage* message) override
        {
            allSucceeded = std::exchange(g_UntilFailure, 0) > 0;
            return TaskServer::IfMessageReplied(from, message);
        }
        std::atomic<bool> allSucceeded{false};
    };
    const ForeignService foreign("peer.message", "('p', uint32 1, '', '{\"text\":[1,2,3,4,5]}')");
    const Dispatcher dispatcher;
    Receiver app;
    ASSERT_TRUE(app.Create("task") && app.CreateDBusServer());
    ASSERT_TRUE(app.SubscribeSignal("other", "signal", nullptr, nullptr));
    Await([&] { return app.IsServiceAvailable("peer"); });
    RawPeer peer;
    constexpr char body[] = R"(('me', uint32 0, 'a type that is too long to stay inside',
                                '{"text":[1,2,3,4,5]}'))";
    const auto call = [&] {
        const std::string said = peer.Call("app.message", "SendMessage", body);
        app.allSucceeded = said != kErrorReply;
        EXPECT_TRUE(!app.allSucceeded || said.find("'app'") == 1) << said;
    };
    const struct
    {
        const char* route;
        TCEventIO* target;
        std::function<void()> send;
    } cases[] = {
        {"call", nullptr, call},
        {"moved call", &app, call},
        {"signal", nullptr,
         [&] {
             peer.Emit("/other", "other.message", "signal", body);
             peer.Call("org.freedesktop.DBus", "GetId", "()");
             EXPECT_TRUE(app.IsServiceAvailable("peer")); // told behind the signal
         }},
        {"late answer", nullptr,
         [&] {
             const TCMessage message = Message("x");
             TCMessage wanted;
             EXPECT_TRUE(app.SendMessage("peer", &message, false, &wanted));
             EXPECT_TRUE(app.SendMessage("peer", &message, true, &wanted)); // behind it
         }},
    };
    for (const auto& c : cases) {
        app.transferTo = c.target;
        app.allSucceeded = false;
        int n = 1;
        for (; !app.allSucceeded && n < 1000; ++n) {
            SCOPED_TRACE(std::string(c.route) + ", allocation " + std::to_string(n));
            OnDispatchThread([n] {
                TCData("[1]").Generate(); // which makes the thread's reader and writer
                g_UntilFailure = n;
            });
            c.send();
            OnDispatchThread([] { g_UntilFailure = 0; });
        }
        EXPECT_GT(n, 5);
        EXPECT_LT(n, 1000);
    }
    app.CloseDBusServer();
    app.Destroy();
}

TEST(Allocation, FailedCreateOrSubscriptionLeavesNothingBehind)
{
    struct Closing : Server
    {
        Closing() : Server("app") {}
        ~Closing() override
        {
            const int left = std::exchange(g_UntilFailure, 0);
            CloseDBusServer();
            AwaitHooks();
            g_UntilFailure = left;
        }
        bool Open()
        {
            return CreateDBusServer() && SubscribeSignal("app", "signal", nullptr, nullptr);
        }
    };
    const Dispatcher dispatcher;
    FailEachAllocation([] { return Closing().Open(); }, [] { EXPECT_TRUE(Closing().Open()); });
    // A create that has failed halfway is taken up again by the next one.
    Closing server;
    std::string expected;
    FailEachAllocation(
        [&] {
            server.CloseDBusServer();
            return server.Open();
        },
        [&] {
            EXPECT_TRUE(server.Open());
            EXPECT_TRUE(server.SendSignal("signal", nullptr));
            expected += "signal app:;"; // once, by no other subscription
            Await([&] { return server.Seen() == expected; });
        });
}
