// Descriptors that run out, a bus or a peer that is stopped, and a peer that means ill.
#include <csignal>

#include <filesystem>
#include <fstream>

#include <sys/resource.h>
#include <unistd.h>

#include "BusHarness.h"

using namespace Velmora;

namespace {

// Stops a process for a scope.
class Stopped
{
public:
    explicit Stopped(pid_t process) : m_Process(process) { kill(process, SIGSTOP); }
    ~Stopped() { kill(m_Process, SIGCONT); }
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

private:
    pid_t m_Process;
};

pid_t Daemon(RawPeer& peer)
{
    GVariant* const answer = g_dbus_connection_call_sync(
        peer.Get(), "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
        "GetConnectionUnixProcessID", g_variant_new("(s)", "org.freedesktop.DBus"), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    guint32 process = 0;
    g_variant_get(answer, "(u)", &process);
    g_variant_unref(answer);
    return static_cast<pid_t>(process);
}

} // namespace

TEST_F(BusTest, CreateWithoutDescriptorsFailsAndLeavesNone)
{
    // GLib aborts where it finds none for a new context: it has GDBus's already, and with one that
    // is free it would connect and then make another.
    const RawPeer first;
    Server app("app");
    const auto before = OpenDescriptors();
    const int lowest = dup(STDIN_FILENO);
    close(lowest);
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {static_cast<rlim_t>(lowest), limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(dispatcher.Create(app));
    EXPECT_FALSE(app.SendSignal("signal", nullptr));
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(CountLog(kError, "get dbus connection fail!"), 1);
    EXPECT_EQ(OpenDescriptors(), before);
    ASSERT_TRUE(dispatcher.Create(app));
    EXPECT_TRUE(app.SendSignal("signal", nullptr));
    Await([&] { return app.IsServiceAvailable("app"); });
}

TEST_F(BusTest, StoppedBusOrPeerCostsATimeoutAndLosesNothing)
{
    const ForeignService foreign("peer.message", "('p', uint32 1, '', '5')");
    RawPeer raw;
    Server app("app"), proxy("proxy", TCServer::SERVER_TYPE_PROXY);
    ASSERT_TRUE(app.CreateDBusServer() && proxy.CreateDBusProxy());
    ASSERT_TRUE(proxy.SubscribeSignal("app", "signal", nullptr, nullptr));
    Await([&] { return app.IsServiceAvailable("peer"); });
    const TCMessage message = Message("x");
    TCMessage reply;
    constexpr int kSends = 100;
    std::string replies, signals;
    for (const pid_t process : {Daemon(raw), foreign.Process()}) {
        {
            const Stopped stopped(process);
            for (int i = 0; i < kSends; ++i) {
                EXPECT_TRUE(app.SendMessage("peer", &message, false, &reply));
                EXPECT_TRUE(app.SendSignal("signal", &message));
                replies += "reply p:5;";
                signals += "signal app:x;";
            }
            EXPECT_FALSE(app.SendMessage("peer", &message, true, &reply, 300));
        }
        EXPECT_TRUE(app.SendMessage("peer", &message, true, &reply));
        EXPECT_EQ(reply.GetMessage(), "5");
        Await([&] { return app.Seen() == replies && proxy.Seen() == signals; });
    }
    EXPECT_EQ(CountLog(kError, "Fail to invoking sync message call(Timeout was reached 24)"), 2);
}
