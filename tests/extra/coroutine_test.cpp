// SPDX-License-Identifier: MIT
// Results that a C++20 coroutine awaits.
#include <coroutine>
#include <optional>

#include "BusHarness.h"
#include "Held.h"
#include "sennet-extra.h"

using namespace Velmora;
using Kind = TCCallResult::Kind;

namespace {

// A coroutine that nobody waits for.
struct Coroutine
{
    struct promise_type
    {
        Coroutine get_return_object()
        {
            return {std::coroutine_handle<promise_type>::from_promise(*this)};
        }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
    std::coroutine_handle<promise_type> handle;
};

} // namespace

class CoroutineTest : public BusTest
{
protected:
    void SetUp() override
    {
        BusTest::SetUp();
        ASSERT_TRUE(proxy.CreateDBusProxy());
        Await([&] { return proxy.IsServiceAvailable("mute"); });
    }
    void AwaitCount(int count)
    {
        Await([&] { return ended == count; });
    }
    TCCallOptions OnTask()
    {
        TCCallOptions options;
        options.queue = &*task;
        return options;
    }

    const ForeignService mute{"mute.message", "mute"};
    TCScope<TCTask> task{"task"};
    std::atomic<int> ended{0};
    std::atomic<Kind> kind{Kind::Other};
    std::atomic<GThread*> thread{nullptr};
};

TEST_F(CoroutineTest, GoesOnWhereTheResultIsDelivered)
{
    ASSERT_TRUE(app.CreateDBusServer());
    Await([&] { return proxy.IsServiceAvailable("app"); });
    const std::vector<TCCallRequest> both{{"app", message}, {"nobody", message}};
    std::string texts;
    const auto run = [&]() -> Coroutine {
        TCCall call;
        for (const char* text : {"a", "b"}) {
            const TCCallResult result = co_await call.Await(proxy, "app", Message(text), OnTask());
            texts += result.reply.GetString();
        }
        const TCCallResult refused = co_await TCCall().Await(proxy, nullptr, message, OnTask());
        EXPECT_EQ(refused.kind, Kind::Refused);
        const auto all = co_await call.AwaitAll(proxy, both);
        EXPECT_EQ(all[0].kind, Kind::Replied);
        EXPECT_EQ(all[1].kind, Kind::NoService);
        ++ended;
    };
    run();
    AwaitCount(1);
    EXPECT_EQ(texts, "ab");
}

TEST_F(CoroutineTest, IsResumedOnceWhateverEndsTheCall)
{
    TCCall call;
    const auto run = [&](TCCallOptions options) -> Coroutine {
        const TCCallResult result = co_await call.Await(proxy, "mute", message, options);
        thread = g_thread_self();
        kind = result.kind;
        ++ended;
    };
    run(OnTask());
    call.Cancel();
    AwaitCount(1);
    EXPECT_EQ(kind, Kind::Cancelled);
    EXPECT_EQ(thread, *RunAndWait(&*task, [] { return g_thread_self(); }));

    TCTask never("never"); // refuses what is posted
    TCCallOptions options;
    options.queue = &never;
    options.timeout = 10;
    run(options);
    AwaitCount(2);
    EXPECT_EQ(kind, Kind::Cancelled);

    Queue swept; // takes the result and is cleared
    ASSERT_TRUE(swept.Init(nullptr));
    Held held(dispatcher);
    options.queue = &swept;
    run(options);
    Await([&] { return swept.CountEvent() == 1; });
    swept.Final();
    AwaitCount(3);
    EXPECT_EQ(kind, Kind::Cancelled);
    held.Release();

    std::optional<TCCall> destroyed(std::in_place);
    const auto wait = [&]() -> Coroutine {
        kind = (co_await destroyed->Await(proxy, "mute", message, OnTask())).kind;
        ++ended;
    };
    kind = Kind::Other;
    wait();
    destroyed.reset();
    AwaitCount(4);
    EXPECT_EQ(kind, Kind::Cancelled);

    // One that is destroyed while it waits is not resumed.
    const auto waiting = [&]() -> Coroutine {
        co_await TCCall().Await(proxy, "mute", message, OnTask());
        ++ended;
    };
    waiting().handle.destroy();
    run(OnTask());
    proxy.CloseDBusProxy();
    AwaitCount(5);
    EXPECT_EQ(kind, Kind::Closed);
}
