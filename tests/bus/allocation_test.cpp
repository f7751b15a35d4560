// SPDX-License-Identifier: MIT
// Memory that runs out at any point of a send or a parse, and memory that is kept too long. The log
// is not captured, since that allocates.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

#include <malloc.h>

#include "BusHarness.h"

using namespace Velmora;

namespace {

// How many allocations of this thread are left up to the one that fails; 0 if none shall fail.
thread_local int g_UntilFailure = 0;

// Lets all allocations succeed for a scope: in the hooks, which are client code.
struct Spared
{
    ~Spared() { g_UntilFailure = left; }
    int left = std::exchange(g_UntilFailure, 0);
};

std::atomic<std::size_t> g_InUse{0}; // bytes

// Runs a send again and again, each time with the next of its allocations failing, and then a check
// of what is left. Returns how many of the sends were accepted.
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
void operator delete(void* memory) noexcept
{
    g_InUse -= malloc_usable_size(memory);
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    operator delete(memory);
}

TEST(Allocation, FailedParseOrGenerateLeavesThePayloadWhole)
{
    const std::string text = R"({"list": [0, "a text too long for the buffer in a string"]})";
    const std::string longer = text + text;
    TCData data(text);
    std::thread([&] { // a new one has no JSON reader and writer yet
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
                event.data.m_Json["key"] = "a value too long for the buffer inside a string";
                return send(&event);
            },
            [&] { // the loop's thread needs the lock, too
                TCEvent event = Event(&task, 8);
                EXPECT_TRUE(SendSyncEvent(&event));
                EXPECT_EQ(task.CountEvent(), 0U);
                expected += "e8 ";
            });
        EXPECT_EQ(sent, 1);
        task.Destroy();
        expected += send == &SendSyncEvent ? "e7 e1 c1 " : "e7 c7 e1 c1 ";
        // The accepted one came before the last check.
        expected.replace(expected.rfind("e8 "), 3, "").insert(expected.rfind("e1"), "e8 ");
        EXPECT_EQ(task.seen, expected);
    }
}

TEST(Allocation, FailedSendOfAServerSendsNothingAndIsNotCountedOn)
{
    const Velmora::Testing::LoopThread dispatcher;
    const ForeignService foreign("peer.message",
                                 "('p', uint32 1, 'type', '{\"n\":5}', [(byte 1,)])");
    Server app("app"), act("act", TCServer::SERVER_TYPE_ACTIVITY);
    TaskServer task("task", TCServer::SERVER_TYPE_ACTIVITY, "task");
    ASSERT_TRUE(app.CreateDBusServer() && act.CreateDBusServer() && task.CreateDBusServer());
    ASSERT_TRUE(task.Create("task") && act.SubscribeSignal("app", "signal", nullptr, nullptr));
    Await([&] { return app.IsServiceAvailable("peer"); });

    const TCMessage message = Message("{\"text\":\"too long for the buffer inside a string\"}", 99);
    const struct
    {
        const char* route;
        std::function<bool()> send;
        std::function<std::ptrdiff_t()> arrivals; // a hook may throw after it has been counted
        bool refuses = false;                     // if there is no memory for the answer
    } cases[] = {
        {"call",
         [&] {
             TCMessage reply;
             return app.SendMessage("act", &message, true, &reply);
         },
         {}},
        {"event", [&] { return app.SendMessage("task", &message, false, nullptr); },
         [&] { return task.CountSeen(); }},
        {"bus", [&] { return act.SendMessage("app", &message, false, nullptr); },
         [&] { return app.CountSeen(); }},
        {"bus, with a reply",
         [&] {
             TCMessage reply;
             return app.SendMessage("peer", &message, false, &reply);
         },
         [&] { return app.CountSeen(); }},
        {"bus, awaited",
         [&] {
             TCMessage reply;
             return app.SendMessage("peer", &message, true, &reply);
         },
         nullptr, true},
        {"signal", [&] { return app.SendSignal("signal", &message); },
         [&] { return act.CountSeen(); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.route);
        std::ptrdiff_t expected = c.arrivals ? c.arrivals() : 0;
        const auto check = [&] {
            std::thread([&] { EXPECT_TRUE(c.send()); }).join(); // no lock is held
            // This takes a moment: the task's thread delivers an event by a send.
            Await([&] { return app.m_SendingCount == 0 && act.m_SendingCount == 0; });
            ++expected;
        };
        expected += FailEachAllocation(c.send, check, c.refuses);
        if (c.arrivals) {
            Await([&] { return c.arrivals() >= expected; });
            EXPECT_EQ(c.arrivals(), expected);
        }
    }
    // On another thread: AwaitHooks() does not wait for hooks of the calling thread.
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
            const Spared spared;
            return TaskServer::IfTransferMessage(from, message, target);
        }
        bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                               const char* signalName) override
        {
            const Spared spared;
            allSucceeded = signalName != nullptr && spared.left > 0;
            return TaskServer::IfMessageReceived(from, message, reply, signalName);
        }
        bool IfMessageReplied(const char* from, const TCMessage* message) override
        {
            allSucceeded = std::exchange(g_UntilFailure, 0) > 0;
            return TaskServer::IfMessageReplied(from, message);
        }
        std::atomic<bool> allSucceeded{false};
    };
    const ForeignService foreign("peer.message", "('p', uint32 1, '', '{\"text\":[1,2,3,4,5]}')");
    const Velmora::Testing::LoopThread dispatcher;
    Receiver app;
    ASSERT_TRUE(app.Create("task") && app.CreateDBusServer());
    ASSERT_TRUE(app.SubscribeSignal("other", "signal", nullptr, nullptr));
    Await([&] { return app.IsServiceAvailable("peer"); });
    RawPeer peer;
    constexpr char body[] = R"(('me', uint32 0, 'a type too long for the buffer',
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
             EXPECT_TRUE(app.IsServiceAvailable("peer")); // its answer arrives after the signal
         }},
        {"late answer", nullptr,
         [&] {
             const TCMessage message = Message("x");
             TCMessage wanted;
             EXPECT_TRUE(app.SendMessage("peer", &message, false, &wanted));
             EXPECT_TRUE(app.SendMessage("peer", &message, true, &wanted)); // arrives after it
         }},
    };
    for (const auto& c : cases) {
        app.transferTo = c.target;
        app.allSucceeded = false;
        int n = 1;
        for (; !app.allSucceeded && n < 1000; ++n) {
            SCOPED_TRACE(std::string(c.route) + ", allocation " + std::to_string(n));
            dispatcher.Run([n] {
                TCData("[1]").Generate(); // creates the thread's reader and writer
                g_UntilFailure = n;
            });
            c.send();
            dispatcher.Run([] { g_UntilFailure = 0; });
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
            const Spared spared;
            CloseDBusServer();
            AwaitHooks();
        }
        bool Open()
        {
            return CreateDBusServer() && SubscribeSignal("app", "signal", nullptr, nullptr);
        }
    };
    const Velmora::Testing::LoopThread dispatcher;
    FailEachAllocation([] { return Closing().Open(); }, [] { EXPECT_TRUE(Closing().Open()); });
    // The next create goes on where a failed one has stopped.
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
            expected += "signal app:;"; // once: there is no second subscription
            Await([&] { return server.Seen() == expected; });
        });
}
