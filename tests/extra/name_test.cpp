// SPDX-License-Identifier: MIT
// Who owns a name, and signals of the true owner.
#include <csignal>

#include "BusHarness.h"
#include "Held.h"
#include "sennet-extra.h"

using namespace Velmora;

namespace {

// The changes as "owner>owner;", with "-" for none.
class Changes
{
public:
    TCNameWatch::Callback Note()
    {
        return [this](const TCNameChange& change) {
            const std::lock_guard<std::mutex> lock(m_Mutex);
            m_Seen += Or(change.former) + ">" + Or(change.owner) + ";";
        };
    }
    std::string Seen()
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Seen;
    }
    void AwaitSeen(const std::string& expected)
    {
        Await([&] { return Seen() == expected; });
    }

private:
    static std::string Or(const std::string& name) { return name.empty() ? "-" : name; }

    std::mutex m_Mutex;
    std::string m_Seen;
};

class NameTest : public BusTest
{
protected:
    void SetUp() override
    {
        BusTest::SetUp();
        ASSERT_TRUE(proxy.CreateDBusProxy());
    }
    static std::string Unique(const RawPeer& peer)
    {
        return g_dbus_connection_get_unique_name(peer.Get());
    }
    static void Own(const RawPeer& peer, const char* method, const char* arguments)
    {
        g_autoptr(GVariant) answer = g_dbus_connection_call_sync(
            peer.Get(), "org.freedesktop.DBus", "/", "org.freedesktop.DBus", method,
            g_variant_new_parsed(arguments), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        ASSERT_NE(answer, nullptr);
    }
    static constexpr const char* kRequest = "('peer.message', uint32 3)"; // may be replaced
    static constexpr const char* kRelease = "('peer.message',)";
};

} // namespace

TEST_F(NameTest, WatchFollowsTheOwner)
{
    const RawPeer one, other;
    TCScope<TCTask> task("task");
    Changes seen, onTask;
    const TCNameWatch first(proxy, "peer", onTask.Note(), &*task); // hears each change first
    auto watch = std::make_unique<TCNameWatch>(proxy, "peer", seen.Note());
    std::string expected;
    // Both before the next change, so that none is left out.
    const auto awaitBoth = [&](const std::string& change) {
        expected += change;
        seen.AwaitSeen(expected);
        onTask.AwaitSeen(expected);
    };
    awaitBoth("->-;");
    Own(one, "RequestName", kRequest);
    awaitBoth("->" + Unique(one) + ";");
    Own(other, "RequestName", kRequest);
    awaitBoth(Unique(one) + ">" + Unique(other) + ";");
    Own(other, "ReleaseName", kRelease);
    awaitBoth(Unique(other) + ">" + Unique(one) + ";");
    {
        const Held held(&*task); // changes that are not heard one by one are one change
        Own(one, "ReleaseName", kRelease);
        seen.AwaitSeen(expected + Unique(one) + ">-;");
        Own(other, "RequestName", kRequest);
        seen.AwaitSeen(expected + Unique(one) + ">-;->" + Unique(other) + ";");
    }
    onTask.AwaitSeen(expected + Unique(one) + ">" + Unique(other) + ";");
    watch.reset();
    Own(other, "ReleaseName", kRelease);
    onTask.AwaitSeen(expected + Unique(one) + ">" + Unique(other) + ";" + Unique(other) + ">-;");
    EXPECT_EQ(seen.Seen(), expected + Unique(one) + ">-;->" + Unique(other) + ";");
}

TEST_F(NameTest, WatchEndsWithItsServerItsBusAndItsQueue)
{
    const RawPeer peer;
    Own(peer, "RequestName", kRequest);
    Server server("server", TCServer::SERVER_TYPE_PROXY);
    ASSERT_TRUE(server.CreateDBusProxy());
    Changes closed, lost, unheard;
    const TCNameWatch ofClosed(server, "peer", closed.Note());
    const TCNameWatch ofLost(proxy, "peer", lost.Note());
    auto task = std::make_unique<TCTask>("task");
    const TCNameWatch onGone(proxy, "peer", unheard.Note(), task.get());
    task.reset();
    const TCNameWatch unopened(app, "peer", unheard.Note()),
        unnamed(proxy, nullptr, unheard.Note());
    const std::string there = "->" + Unique(peer) + ";";
    closed.AwaitSeen(there);
    lost.AwaitSeen(there);
    server.CloseDBusProxy();
    closed.AwaitSeen(there + Unique(peer) + ">-;");
    EXPECT_EQ(lost.Seen(), there);
    kill(peer.Daemon(), SIGKILL);
    lost.AwaitSeen(there + Unique(peer) + ">-;");
    EXPECT_EQ(unheard.Seen(), "");
}

TEST_F(NameTest, WatchWaitsForItsCallbackAndMayEndInsideIt)
{
    TCScope<TCTask> task("task");
    std::promise<void> begun, go;
    std::atomic<bool> returned{false};
    const auto captured = std::make_shared<int>();
    auto watch = std::make_unique<TCNameWatch>(
        proxy, "peer",
        [&, captured](const TCNameChange&) {
            begun.set_value();
            go.get_future().wait();
            returned = true;
        },
        &*task);
    begun.get_future().wait();
    std::thread release([&] { go.set_value(); });
    watch.reset();
    EXPECT_TRUE(returned);
    EXPECT_EQ(captured.use_count(), 1);
    release.join();
    std::promise<void> ended;
    std::atomic<bool> made{false};
    watch = std::make_unique<TCNameWatch>(
        proxy, "peer",
        [&](const TCNameChange&) {
            Await([&] { return made.load(); });
            watch.reset();
            ended.set_value();
        },
        &*task);
    made = true;
    ended.get_future().wait();
}

TEST_F(NameTest, AwaitNameTellsWhatBecameOfTheRequest)
{
    std::string why;
    EXPECT_FALSE(AwaitName(proxy, 1000, &why));
    EXPECT_EQ(why, "a proxy has no name");
    EXPECT_FALSE(AwaitName(app, 1000, &why));
    EXPECT_EQ(why, "the server is not open");
    ASSERT_TRUE(app.CreateDBusServer());
    EXPECT_TRUE(AwaitName(app, 20000, &why)) << why; // while another thread runs the loop

    const RawPeer holder; // does not let the name go
    Own(holder, "RequestName", "('app.taken.message', uint32 0)");
    Server taken("taken", TCServer::SERVER_TYPE_ACTIVITY);
    ASSERT_TRUE(taken.CreateDBusServer());
    EXPECT_FALSE(AwaitName(taken, 20000, &why));
    EXPECT_EQ(why, "it is taken by " + Unique(holder) + ", process " + std::to_string(getpid()));

    // On the thread of the context, which nobody else runs.
    const Internal::ContextPtr context(g_main_context_new());
    g_main_context_push_thread_default(context.get());
    GSource* const busy = g_idle_source_new(); // always ready
    g_source_set_callback(
        busy, [](void*) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    g_source_set_priority(busy, G_PRIORITY_DEFAULT);
    g_source_attach(busy, context.get());
    g_source_unref(busy);
    Server here("here", TCServer::SERVER_TYPE_ACTIVITY);
    ASSERT_TRUE(here.CreateDBusServer());
    EXPECT_TRUE(AwaitName(here, 20000)) << why;
    here.CloseDBusServer();
    g_main_context_pop_thread_default(context.get());

    Server denied("denied", TCServer::SERVER_TYPE_ACTIVITY); // by the policy
    ASSERT_TRUE(denied.CreateDBusServer());
    EXPECT_FALSE(AwaitName(denied, 20000, &why));
    EXPECT_EQ(why, "the bus refuses it");
    Own(holder, "RequestName", "('forbidden.message', uint32 0)");
    EXPECT_EQ(TCCall().Start(proxy, "forbidden", message).get().kind,
              TCCallResult::Kind::AccessDenied);

    const pid_t daemon = holder.Daemon();
    kill(daemon, SIGSTOP); // no answer any more
    EXPECT_FALSE(AwaitName(app, 1, &why));
    EXPECT_EQ(why, "the time is over");
    kill(daemon, SIGCONT);
}

TEST_F(NameTest, ScopeWarnsOfANameThatIsNotGranted)
{
    const RawPeer holder;
    Own(holder, "RequestName", "('busy.message', uint32 0)");
    const auto warnings = [] { return CountLog(kWarning, "the bus has not granted the name *"); };
    {
        const TCScope<Noted<>> brief("brief");
    }
    const TCScope<Noted<>> busy("busy");
    Server granted("granted", TCServer::SERVER_TYPE_ACTIVITY);
    const TCScope<Noted<>> named("named", TCServer::SERVER_TYPE_ACTIVITY);
    Await([&] { return warnings() == 1; });
    EXPECT_EQ(CountLog(kWarning, "the bus has not granted the name busy.message: refused, or taken "
                                 "by another program*"),
              1);
    AwaitDispatch();
    EXPECT_EQ(warnings(), 1);
}

TEST_F(NameTest, OwnerSignalsCannotBeForged)
{
    const RawPeer one, other, forger;
    TCScope<TCTask> task("task");
    std::mutex mutex;
    std::string seen;
    const auto note = [&](const char* from, const char* signal, const TCMessage& news) {
        const std::lock_guard<std::mutex> lock(mutex);
        seen += Text(from) + " " + signal + " " + news.GetString() + " " +
                TCCaller::Current().UniqueName() + ";";
    };
    const auto emit = [](const RawPeer& peer, const char* text) {
        peer.Emit("/peer/message", "peer.message", "news",
                  ("('peer', uint32 0, '', '" + std::string(text) + "')").c_str());
    };
    // Also what is sent to this connection alone.
    const auto emitToUs = [&](const RawPeer& peer) {
        g_autoptr(GDBusConnection) ours = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        g_dbus_connection_emit_signal(peer.Get(), g_dbus_connection_get_unique_name(ours),
                                      "/peer/message", "peer.message", "news",
                                      g_variant_new_parsed(kCall), nullptr);
        g_dbus_connection_flush_sync(peer.Get(), nullptr, nullptr);
    };
    const auto awaitSeen = [&](const std::string& text) {
        Await([&] {
            const std::lock_guard<std::mutex> lock(mutex);
            return seen == text;
        });
    };
    EXPECT_EQ(SubscribeOwnerSignal(proxy, nullptr, "news", note), nullptr);
    EXPECT_EQ(SubscribeOwnerSignal(proxy, "peer", "n-ews", note), nullptr);
    EXPECT_EQ(SubscribeOwnerSignal(app, "peer", "news", note), nullptr);
    Own(one, "RequestName", kRequest);
    auto subscription = SubscribeOwnerSignal(proxy, "peer", "news", note, &*task);
    ASSERT_NE(subscription, nullptr);
    proxy.IsServiceAvailable("peer"); // after the answer, the bus knows the subscription
    emit(one, "first");
    std::string expected = "peer news first " + Unique(one) + ";";
    awaitSeen(expected);
    emitToUs(forger);
    emit(forger, "forged");
    Own(other, "RequestName", kRequest);
    emit(one, "no longer");
    emit(other, "second");
    awaitSeen(expected += "peer news second " + Unique(other) + ";");
    other.Emit("/peer/message", "peer.message", "news", "('odd',)");
    awaitSeen(expected += "(null) news  " + Unique(other) + ";");
    subscription.reset();
    emit(other, "unheard");
    proxy.CloseDBusProxy();
    awaitSeen(expected);
}

TEST_F(NameTest, OwnerSignalsComeInTheirOrderOnABusyQueue)
{
    const RawPeer peer;
    Own(peer, "RequestName", kRequest);
    TCScope<TCTask> task("task");
    std::vector<std::string> seen; // on the task's thread
    std::atomic<std::size_t> count{0};
    const auto subscription = SubscribeOwnerSignal(
        proxy, "peer", "news",
        [&](const char*, const char*, const TCMessage& news) {
            seen.push_back(news.GetString());
            ++count;
        },
        &*task);
    proxy.IsServiceAvailable("peer");
    std::vector<std::string> sent;
    std::atomic<bool> busy{true};
    std::vector<std::thread> others; // take the lock of the queue all the time, and never fill it
    for (int i = 0; i < 4; ++i) {
        others.emplace_back([&] {
            while (busy) {
                RunAndWait(&*task, [] {});
            }
        });
    }
    for (int number = 0; number < 500; ++number) {
        sent.push_back(std::to_string(number));
        peer.Emit("/peer/message", "peer.message", "news",
                  ("('peer', uint32 0, '', '" + sent.back() + "')").c_str());
    }
    Await([&] { return count == sent.size(); });
    busy = false;
    for (std::thread& other : others) {
        other.join();
    }
    EXPECT_EQ(seen, sent);
}
