// SPDX-License-Identifier: MIT
// Descriptors that run out, a bus or a peer that stops or ends, and hostile peers.
#include <csignal>

#include <future>

#include <gio/gunixfdlist.h>
#include <sys/resource.h>
#include <unistd.h>

#include "BusHarness.h"

using namespace Velmora;

namespace {

// Stops a process for a scope.
class Stopped
{
public:
    explicit Stopped(pid_t process) : m_Process(process)
    {
        kill(process, SIGSTOP);
        const auto all = "/proc/" + std::to_string(process) + "/task";
        for (const auto& thread : std::filesystem::directory_iterator(all)) {
            Await([&] {
                const std::string state = Support::Status(thread.path(), "State:");
                return state == "T" || state.empty(); // empty: the thread has ended
            });
        }
    }
    ~Stopped() { kill(m_Process, SIGCONT); }
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

private:
    pid_t m_Process;
};

// A client that sends calls and reads nothing, not even the reply to its Hello.
class SilentPeer
{
public:
    SilentPeer()
        : m_Stream(g_dbus_address_get_stream_sync(g_getenv("DBUS_SYSTEM_BUS_ADDRESS"), nullptr,
                                                  nullptr, nullptr))
    {
        constexpr char login[] = "\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n";
        Write({login, sizeof login - 1});
        Call("org.freedesktop.DBus", "/", "Hello", "()");
    }
    ~SilentPeer() { g_object_unref(m_Stream); }
    SilentPeer(const SilentPeer&) = delete;
    SilentPeer& operator=(const SilentPeer&) = delete;

    void Call(const char* name, const char* path, const char* method, const char* body)
    {
        g_autoptr(GDBusMessage) message = g_dbus_message_new_method_call(name, path, name, method);
        if (m_Serial % 16 != 0) { // the bus does not count these, and goes on delivering
            g_dbus_message_set_flags(message, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
        }
        g_dbus_message_set_body(message, g_variant_new_parsed(body));
        g_dbus_message_set_serial(message, ++m_Serial);
        gsize size = 0;
        g_autofree guchar* bytes =
            g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
        Write({bytes, bytes + size});
    }

private:
    void Write(const std::string& bytes)
    {
        EXPECT_TRUE(g_output_stream_write_all(g_io_stream_get_output_stream(m_Stream), bytes.data(),
                                              bytes.size(), nullptr, nullptr, nullptr));
    }

    GIOStream* m_Stream;
    guint32 m_Serial = 0;
};

constexpr long kMemoryMore = 65536; // KiB, a quarter of what is sent
constexpr char kEcho[] = "example.echo.message";
constexpr char kEchoPath[] = "/example/echo/message";
constexpr char kGoodBody[] = "('me', uint32 7, 't', 'x')";

// Takes ownership of the message.
void Send(GDBusConnection* connection, GDBusMessage* message)
{
    EXPECT_TRUE(g_dbus_connection_send_message(connection, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                               nullptr, nullptr));
    g_object_unref(message);
}

// Sends calls and signals with bodies of no known shape, and with texts that are a burden. What has
// a wrong path, interface or method does not get past GDBus.
void SendWrongMessages(RawPeer& peer)
{
    const auto text = [](const std::string& content) {
        return "('me', uint32 7, 't', '" + content + "')";
    };
    const std::string huge = text(std::string(4U << 20U, 'x'));
    const std::string deep = text(std::string(1U << 20U, '['));
    const auto call = [&peer](const char* method, const std::string& body) {
        g_dbus_connection_call(peer.Get(), kEcho, kEchoPath, kEcho, method,
                               g_variant_new_parsed(body.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE,
                               -1, nullptr, nullptr, nullptr);
    };
    call("SendMessageWithBuffer", kGoodBody);
    call("SendMessageWithBuffer", "('', uint32 0, '', '', {'k': <[[<1>]]>})");
    call("SendMessage", huge);
    call("SendMessage", deep);
    for (const std::string& body : {std::string("()"), std::string("(1, [<2>])"), deep}) {
        EXPECT_TRUE(peer.Emit(kEchoPath, kEcho, "service_start_default", body.c_str()));
    }
}

GDBusMessage* WithDescriptors(GDBusMessage* message)
{
    g_autoptr(GUnixFDList) list = g_unix_fd_list_new();
    for (int i = 0; i < 16; ++i) {
        g_unix_fd_list_append(list, STDIN_FILENO, nullptr);
    }
    g_dbus_message_set_unix_fd_list(message, list);
    g_dbus_message_set_body(message, g_variant_new_parsed(kGoodBody));
    return message;
}

GDBusMessage* AnswerWithDescriptors(GDBusConnection* connection, GDBusMessage* message,
                                    gboolean incoming, gpointer /*data*/)
{
    if (incoming != 0 &&
        g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        Send(connection, WithDescriptors(g_dbus_message_new_method_reply(message)));
    }
    return message;
}

} // namespace

TEST_F(BusTest, CreateWithoutBusOrDescriptorsFailsAndLeavesNone)
{
    // GLib aborts if it has no descriptor for a new context. With this peer GDBus has its context
    // already. With one free descriptor it would connect, and then create another context.
    const RawPeer first;
    const auto fails = [&] {
        ForgetLog();
        EXPECT_FALSE(app.CreateDBusServer());
        EXPECT_FALSE(app.SendSignal("signal", nullptr));
        EXPECT_EQ(CountLog(kError, "get dbus connection fail!"), 1);
    };
    const auto before = Support::OpenDescriptors();
    const std::string address = g_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", TRUE);
    fails(); // before the next one: UBSan opens descriptors for each type that is new to it
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), TRUE);
    const int lowest = dup(STDIN_FILENO);
    close(lowest);
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {static_cast<rlim_t>(lowest), limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    fails();
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_LE(Support::OpenDescriptors(), before); // fewer if GDBus had one open for a moment
    ASSERT_TRUE(app.CreateDBusServer());
    EXPECT_TRUE(app.SendSignal("signal", nullptr));
    Await([&] { return app.IsServiceAvailable("app"); });
}

TEST_F(BusTest, StoppedBusOrPeerCostsATimeoutAndLosesNothing)
{
    const ForeignService foreign("peer.message", "('p', uint32 1, '', '5')");
    RawPeer raw;
    ASSERT_TRUE(app.CreateDBusServer() && proxy.CreateDBusProxy());
    ASSERT_TRUE(proxy.SubscribeSignal("app", "signal", nullptr, nullptr));
    Await([&] { return app.IsServiceAvailable("peer"); });
    constexpr int kSends = 100;
    std::string replies, signals;
    for (const pid_t process : {raw.Daemon(), foreign.Id()}) {
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

TEST_F(BusTest, CreateOnABusThatDoesNotAnswerGivesUpAndLaterOpens)
{
    RawPeer raw;
    {
        const Stopped stopped(raw.Daemon());
        EXPECT_FALSE(app.CreateDBusServer());
        EXPECT_EQ(CountLog(kError, "the bus has not answered within 25 s"), 1);
    }
    EXPECT_TRUE(app.CreateDBusServer());
    Await([&] { return app.IsServiceAvailable("app"); });
}

TEST_F(BusTest, CloseOnABusThatTakesNothingEnds)
{
    RawPeer raw;
    ASSERT_TRUE(app.CreateDBusServer() && proxy.CreateDBusProxy());
    Await([&] { return app.IsServiceAvailable("app"); });
    const Stopped stopped(raw.Daemon());
    const TCMessage large = Message("x", 65536);
    for (int i = 0; i < 80; ++i) {
        EXPECT_TRUE(proxy.SendMessage("elsewhere", &large, false, nullptr));
    }
    std::thread other([&] { app.CloseDBusServer(); });
    proxy.CloseDBusProxy();
    other.join();
    EXPECT_EQ(CountLog(kError, "the bus takes nothing: something that was sent is left unsent"), 2);
}

TEST_F(BusTest, DescriptorsThatNobodyAskedForAreClosedAsTheyArrive)
{
    constexpr std::ptrdiff_t kMessages = 100;
    const auto newCall = [] {
        return WithDescriptors(g_dbus_message_new_method_call("app.message", "/app/message",
                                                              "app.message", "SendMessage"));
    };
    ASSERT_TRUE(app.CreateDBusServer() &&
                app.SubscribeSignal("other", "signal", nullptr, nullptr) &&
                app.SubscribeSignal(nullptr, "from_any", nullptr, nullptr));
    ASSERT_TRUE(proxy.CreateDBusProxy() &&
                proxy.SubscribeSignal("other", "signal", nullptr, nullptr) &&
                proxy.UnSubscribeSignal("other", "signal")); // the other subscription stays
    Await([&] { return app.IsServiceAvailable("app"); });
    RawPeer peer;
    std::promise<void> release;
    std::thread stop([&] { dispatcher.Run([&] { release.get_future().wait(); }); });
    const auto before = Support::OpenDescriptors();
    for (int i = 0; i < kMessages; ++i) {
        for (const char* const name : {"signal", "from_any"}) {
            Send(peer.Get(),
                 WithDescriptors(g_dbus_message_new_signal("/o", "other.message", name)));
        }
        GDBusMessage* const call = newCall();
        g_dbus_message_set_flags(call, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
        Send(peer.Get(), call);
    }
    peer.Call("org.freedesktop.DBus", "GetId", "()");
    EXPECT_TRUE(app.IsServiceAvailable("app")); // its answer arrives after all of these
    EXPECT_LE(Support::OpenDescriptors(), before + 16);
    release.set_value();
    stop.join();
    Await([&] { return app.CountSeen() == 3 * kMessages; });
    g_autoptr(GDBusMessage) call = newCall();
    g_autoptr(GDBusMessage) answer = g_dbus_connection_send_message_with_reply_sync(
        peer.Get(), call, G_DBUS_SEND_MESSAGE_FLAGS_NONE, 10000, nullptr, nullptr, nullptr);
    EXPECT_NE(answer, nullptr);

    // The program's own calls on that connection keep theirs.
    g_dbus_connection_add_filter(peer.Get(), &AnswerWithDescriptors, nullptr, nullptr);
    g_autoptr(GDBusConnection) shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_autoptr(GUnixFDList) list = nullptr;
    g_autoptr(GVariant) got = g_dbus_connection_call_with_unix_fd_list_sync(
        shared, g_dbus_connection_get_unique_name(peer.Get()), "/o", "other.message", "Get",
        nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &list, nullptr, nullptr);
    ASSERT_TRUE(got != nullptr && list != nullptr);
    EXPECT_EQ(g_unix_fd_list_get_length(list), 16);
}

TEST_F(BusTest, IllMeaningPeersNeitherSilenceAServiceNorSwellIt)
{
    g_setenv("ASAN_OPTIONS", "quarantine_size_mb=1", TRUE); // otherwise ASan keeps freed memory
    Support::ChildProcess echo({ECHO_SERVICE}, G_SUBPROCESS_FLAGS_STDOUT_SILENCE);
    const std::string process = std::to_string(echo.Id());
    ASSERT_TRUE(proxy.CreateDBusProxy());
    ASSERT_TRUE(proxy.SubscribeSignal("example.echo", "service_start_default", nullptr, nullptr));
    Await([&] { return proxy.IsServiceAvailable("example.echo"); });

    std::atomic<bool> over{false};
    std::atomic<int> answers{0};
    std::thread good([&] {
        for (; !over; ++answers) {
            const TCMessage json = Message("{\"n\":" + std::to_string(answers) + "}", 3);
            EXPECT_TRUE(proxy.SendMessage("example.echo", &json, true, &reply, 60000));
            EXPECT_EQ(reply.GetMessage(), json.GetMessage());
        }
    });
    Await([&] { return answers > 0; });
    const auto openBefore = Support::OpenDescriptors(process);
    const long memoryBefore = Support::ResidentKiB(process);
    RawPeer peer;
    for (int round = 0; round < 5; ++round) {
        const int before = answers;
        SilentPeer silent;
        SendWrongMessages(peer);
        for (int i = 0; i < 3000; ++i) {
            silent.Call(kEcho, kEchoPath, "SendMessage", kGoodBody);
        }
        SendWrongMessages(peer);
        EXPECT_EQ(peer.Call(kEcho, "SendMessage", kGoodBody),
                  "('example.echo', uint32 7, 't', 'x', [(byte 0x00,)])");
        Await([&] { return answers > before + 1; });
    }
    over = true;
    good.join();
    Await([&] { return Support::ResidentKiB(process) < memoryBefore + kMemoryMore; });
    EXPECT_EQ(Support::OpenDescriptors(process), openBefore);
    kill(echo.Id(), SIGTERM);
    EXPECT_TRUE(echo.EndsWell()); // and has not leaked
}

// Keep this test last: it ends the bus.
TEST_F(BusTest, ProcessOutlivesItsBus)
{
    TaskServer task("task", TCServer::SERVER_TYPE_ACTIVITY, "task");
    ASSERT_TRUE(app.CreateDBusServer() && task.CreateDBusServer());
    RawPeer peer;
    kill(peer.Daemon(), SIGKILL); // the private daemon of this test
    Await([&] { return !app.SendSignal("signal", nullptr); });
    Await([] { return CountLog(kError, "bus connection *") == 1; }); // one line for both servers
    EXPECT_FALSE(app.SendMessage("elsewhere", &message, true, &reply));
    EXPECT_TRUE(app.SendMessage("task", &message, true, &reply));
    app.CloseDBusServer();
    task.CloseDBusServer();

    // The bus is back, and nothing holds the dead connection any more.
    const std::string address = g_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    const std::string listen = "--address=" + address.substr(0, address.find(",guid"));
    const Support::ChildProcess again(
        {"dbus-daemon", "--nofork", "--config-file=" BUS_CONFIG, listen.c_str()});
    Await([&] {
        app.CloseDBusServer();
        return app.CreateDBusServer() && app.SendSignal("signal", nullptr);
    });
}
