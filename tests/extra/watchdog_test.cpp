// SPDX-License-Identifier: MIT
// What the service manager hears of a service.
#include <cstddef>
#include <optional>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "BusHarness.h"
#include "Held.h"
#include "sennet-extra.h"

using namespace Velmora;

namespace {

constexpr char kInterval[] = "200000"; // microseconds

// A service manager's end of the socket.
class Manager
{
public:
    explicit Manager(bool abstract)
        : m_Socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        m_Path =
            (abstract ? "@" : "/tmp/") + std::string("sennet-notify-") + std::to_string(getpid());
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        m_Path.copy(address.sun_path, m_Path.size());
        if (abstract) {
            address.sun_path[0] = '\0';
        }
        EXPECT_EQ(bind(m_Socket, reinterpret_cast<sockaddr*>(&address),
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_Path.size())),
                  0);
        g_setenv("NOTIFY_SOCKET", m_Path.c_str(), TRUE);
    }
    ~Manager()
    {
        close(m_Socket);
        unlink(m_Path.c_str());
        g_unsetenv("NOTIFY_SOCKET");
        g_unsetenv("WATCHDOG_USEC");
        g_unsetenv("WATCHDOG_PID");
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    // Reads what has come. Returns how many "WATCHDOG=1" were among it; the rest goes to others.
    int CountLife()
    {
        int count = 0;
        char text[256];
        for (ssize_t size = 0; (size = recv(m_Socket, text, sizeof text, 0)) >= 0;) {
            const std::string state(text, static_cast<std::size_t>(size));
            if (state == "WATCHDOG=1") {
                ++count;
            } else {
                others += state + ";";
            }
        }
        return count;
    }
    void AwaitLife(int count)
    {
        Await([&] { return (count -= CountLife()) <= 0; });
    }
    void AwaitOthers(const std::string& expected)
    {
        Await([&] {
            CountLife();
            return others == expected;
        });
    }

    std::string others;

private:
    const int m_Socket;
    std::string m_Path;
};

using WatchdogTest = BusTest;

} // namespace

TEST_F(WatchdogTest, ServiceIsReadyWhenItsNameIsGranted)
{
    for (const bool abstract : {false, true}) {
        Manager manager(abstract);
        {
            std::optional<Held> held(std::in_place, dispatcher);
            ASSERT_TRUE(app.CreateDBusServer()); // the bus grants the name without the loop
            TCWatchdog watchdog(app);
            manager.AwaitOthers("READY=1;");
            EXPECT_TRUE(watchdog.SetStatus("fine"));
            EXPECT_FALSE(watchdog.SetStatus("two\nlines"));
            EXPECT_FALSE(watchdog.SetStatus("\xff"));
        }
        manager.AwaitOthers("READY=1;STATUS=fine;STOPPING=1;");
        app.CloseDBusServer();
    }
    Manager manager(false);
    {
        const RawPeer holder;
        Noted<> doomed("doomed");
        g_autoptr(GVariant) owned = g_dbus_connection_call_sync(
            holder.Get(), "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "RequestName",
            g_variant_new("(su)", "app.message", 0U), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
            nullptr);
        ASSERT_NE(owned, nullptr);
        ASSERT_TRUE(app.CreateDBusServer());
        const TCWatchdog watchdog(app), unopened(proxy), closed(doomed);
        EXPECT_FALSE(AwaitName(app, 20000));
        AwaitDispatch();
        manager.AwaitOthers("READY=1;"); // the proxy's: its loop answers
        g_autoptr(GVariant) released = g_dbus_connection_call_sync(
            holder.Get(), "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "ReleaseName",
            g_variant_new("(s)", "app.message"), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
            nullptr);
        EXPECT_NE(released, nullptr);
        manager.AwaitOthers("READY=1;READY=1;");
    }
    manager.AwaitOthers("READY=1;READY=1;STOPPING=1;STOPPING=1;STOPPING=1;");
}

TEST_F(WatchdogTest, EachQueueAndTheLoopMustAnswer)
{
    Manager manager(false);
    g_setenv("WATCHDOG_USEC", kInterval, TRUE);
    g_setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), TRUE);
    TCScope<TCTask> one("one"), other("other");
    auto ended = std::make_unique<TCTask>("ended");
    TCTask never("never"); // not ready, so not watched
    ASSERT_TRUE(ended->Create("ended"));
    std::optional<TCWatchdog> watchdog(
        std::in_place, std::vector<TCEventIO*>{&*one, &*other, ended.get(), &never, nullptr});
    manager.AwaitOthers("READY=1;");
    manager.AwaitLife(3);
    ended->Destroy();
    ended.reset();
    manager.AwaitLife(3);
    for (const auto& hold :
         {std::function<std::unique_ptr<Held>()>([&] { return std::make_unique<Held>(&*one); }),
          std::function<std::unique_ptr<Held>()>([&] { return std::make_unique<Held>(&*other); }),
          std::function<std::unique_ptr<Held>()>(
              [&] { return std::make_unique<Held>(dispatcher); })}) {
        const auto held = hold();
        g_usleep(300000); // more than an interval: at most the answers before it are told
        EXPECT_LE(manager.CountLife(), 2);
        g_usleep(300000);
        EXPECT_EQ(manager.CountLife(), 0);
        held->Release();
        manager.AwaitLife(3);
    }
    for (int i = 0; i < 20; ++i) { // slow, but alive: each answer waits for one of these
        Velmora::Run(&*one, [] { g_usleep(50000); });
    }
    manager.AwaitLife(2);
    EXPECT_GT(one->CountEvent(), 0U);
    watchdog.reset();
    manager.AwaitOthers("READY=1;STOPPING=1;");
    manager.CountLife();
    EXPECT_EQ(manager.CountLife(), 0);
}

TEST_F(WatchdogTest, NobodyWhoListensIsNoFault)
{
    ASSERT_TRUE(app.CreateDBusServer());
    {
        TCWatchdog watchdog(app); // without a service manager
        EXPECT_TRUE(watchdog.SetStatus("fine"));
    }
    Manager manager(false);
    g_setenv("WATCHDOG_USEC", kInterval, TRUE);
    g_setenv("WATCHDOG_PID", "1", TRUE); // another process
    {
        TCWatchdog watchdog(app);
        manager.AwaitOthers("READY=1;");
        for (int i = 0; i < 2000; ++i) { // fills the socket
            EXPECT_TRUE(watchdog.SetStatus("fine"));
        }
        g_setenv("NOTIFY_SOCKET", "/nonexistent/socket", TRUE);
        const TCWatchdog gone(app);
        g_setenv("NOTIFY_SOCKET", "relative", TRUE);
        const TCWatchdog wrong(app);
        EXPECT_EQ(CountLog(kError, "NOTIFY_SOCKET is not the address of a socket: relative"), 1);
    }
    EXPECT_EQ(manager.CountLife(), 0);
}
