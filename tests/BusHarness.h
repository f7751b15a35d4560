// What the tests on a bus share.
#pragma once

#include <cstring>
#include <future>
#include <memory>

#include <gio/gio.h>

#include "Harness.h"

constexpr char kErrorReply[] = "('', uint32 0, '', '{\"dbus_result\":\"fail\",\"errmsg\":\"error "
                               "handling\"}', [(byte 0x00,)])";
constexpr char kCall[] = "('me', uint32 0, '', 'x')";
constexpr char kAppStarts[] = "service_start_default app:{\"service_name\":\"app\"};";

// Runs the default main context on a thread: the bus dispatch thread.
class Dispatcher
{
public:
    Dispatcher() : m_Loop(g_main_loop_new(nullptr, FALSE)), m_Thread([this] { Run(); })
    {
        Await([this] { return g_main_loop_is_running(m_Loop) != 0; });
    }
    ~Dispatcher()
    {
        g_main_loop_quit(m_Loop);
        m_Thread.join();
        g_main_loop_unref(m_Loop);
    }

private:
    void Run() { g_main_loop_run(m_Loop); }

    GMainLoop* m_Loop;
    std::thread m_Thread;
};

// Behind what is queued for that thread, and waits for it.
inline void OnDispatchThread(std::function<void()> function)
{
    std::packaged_task<void()> task(std::move(function));
    const auto run = [](void* data) -> gboolean {
        (*static_cast<std::packaged_task<void()>*>(data))();
        return G_SOURCE_REMOVE;
    };
    g_idle_add_full(G_PRIORITY_DEFAULT, run, &task, nullptr);
    task.get_future().wait();
}

inline std::string Text(const char* text)
{
    return text != nullptr ? text : "(null)";
}

// Notes what its hooks get, and echoes messages.
template <typename... Bases>
class Noted : public Velmora::TCServer, public Bases...
{
public:
    template <typename... Arguments>
    explicit Noted(const std::string& name, TCServerType type = SERVER_TYPE_SERVICE,
                   Arguments... arguments)
        : Velmora::TCServer(name, type), Bases(arguments...)...
    {}

    std::string Seen()
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Seen;
    }
    void Note(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Seen += what + ";";
    }

    Velmora::TCEventIO* transferTo = nullptr;
    bool transfersToNull = false;
    std::function<void(Velmora::TCMessage& reply)> onMessage;
    std::atomic<GThread*> thread{nullptr}; // of the last message

    using TCServer::m_PendingCallNotify;
    using TCServer::m_SendingCount;
    using TCServer::m_ServerMutex;

protected:
    bool IfTransferMessage(const char* /*from*/, const Velmora::TCMessage* /*message*/,
                           Velmora::TCEventIO*& target) override
    {
        target = transferTo;
        return transferTo != nullptr || transfersToNull;
    }
    bool IfMessageReceived(const char* from, const Velmora::TCMessage* message,
                           Velmora::TCMessage* reply, const char* signalName) override
    {
        thread = g_thread_self();
        *reply = *message;
        if (onMessage) {
            onMessage(*reply);
        }
        Note((signalName != nullptr ? std::string(signalName) + " " : "") + Text(from) + ":" +
             message->GetMessage());
        return true;
    }
    bool IfMessageReplied(const char* from, const Velmora::TCMessage* message) override
    {
        Note("reply " + Text(from) + ":" + message->GetMessage() + message->m_Type);
        return true;
    }

private:
    std::mutex m_Mutex;
    std::string m_Seen;
};

// The same, but closes itself.
template <typename... Bases>
class Hooks : public Noted<Bases...>
{
public:
    using Noted<Bases...>::Noted;
    ~Hooks() override
    {
        this->CloseDBusServer();
        this->AwaitHooks();
    }
};

using Server = Hooks<>;
using TaskServer = Hooks<Velmora::TCTask>;

inline Velmora::TCMessage Message(const std::string& text, unsigned int bufferSize = 0)
{
    Velmora::TCMessage message;
    message.SetMessage(text);
    const std::vector<unsigned char> bytes(bufferSize, 'b');
    message.SetBuffer(bytes.data(), bufferSize);
    return message;
}

// A program in a process of its own, which ends with this object.
class Child
{
public:
    explicit Child(std::vector<const char*> command,
                   GSubprocessFlags flags = G_SUBPROCESS_FLAGS_NONE)
    {
        command.push_back(nullptr);
        m_Process = g_subprocess_newv(command.data(), flags, nullptr);
    }
    ~Child()
    {
        g_subprocess_force_exit(m_Process);
        EndsWell();
        g_object_unref(m_Process);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Process() const { return std::stoi(g_subprocess_get_identifier(m_Process)); }
    void Signal(int number) { g_subprocess_send_signal(m_Process, number); }
    bool EndsWell() { return g_subprocess_wait_check(m_Process, nullptr, nullptr) != 0; }

private:
    GSubprocess* m_Process;
};

// A service that does not know the library.
struct ForeignService : Child
{
    ForeignService(const char* busName, const char* mode) : Child({FOREIGN_PEER, busName, mode}) {}
};

// A client of the bus that does not know the library.
class RawPeer
{
public:
    RawPeer()
        : m_Connection(g_dbus_connection_new_for_address_sync(
              std::getenv("DBUS_SYSTEM_BUS_ADDRESS"),
              static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
              nullptr, nullptr, nullptr))
    {}
    ~RawPeer()
    {
        g_dbus_connection_close_sync(m_Connection, nullptr, nullptr);
        g_object_unref(m_Connection);
    }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    GDBusConnection* Get() const { return m_Connection; }

    // The process of the bus.
    pid_t Daemon()
    {
        constexpr char bus[] = "org.freedesktop.DBus";
        const std::string said =
            Call(bus, "GetConnectionUnixProcessID", "('org.freedesktop.DBus',)");
        return std::stoi(said.substr(std::strlen("(uint32 ")));
    }

    // The printed reply of a call, or the error's message.
    std::string Call(const std::string& name, const char* method = "SendMessage",
                     const char* body = kCall, int timeout = 10000)
    {
        g_autoptr(GError) error = nullptr;
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            m_Connection, name.c_str(), Velmora::TCServerHelper::GetObjectPath(name).c_str(),
            name.c_str(), method, g_variant_new_parsed(body), nullptr, G_DBUS_CALL_FLAGS_NONE,
            timeout, nullptr, &error);
        return Printed(reply, error);
    }
    // Goes out before all later calls; the answer comes on the dispatch thread.
    std::future<std::string> CallLater(const std::string& name)
    {
        using Said = std::promise<std::string>;
        const auto note = [](GObject* source, GAsyncResult* result, void* data) {
            const std::unique_ptr<Said> said(static_cast<Said*>(data));
            g_autoptr(GError) error = nullptr;
            g_autoptr(GVariant) reply = g_dbus_connection_call_finish(
                reinterpret_cast<GDBusConnection*>(source), result, &error);
            said->set_value(Printed(reply, error));
        };
        auto* const said = new Said; // which is the callback's
        auto future = said->get_future();
        g_dbus_connection_call(m_Connection, name.c_str(),
                               Velmora::TCServerHelper::GetObjectPath(name).c_str(), name.c_str(),
                               "SendMessage", g_variant_new_parsed(kCall), nullptr,
                               G_DBUS_CALL_FLAGS_NONE, -1, nullptr, note, said);
        return future;
    }
    bool Emit(const char* path, const char* interface, const char* signal, const char* body)
    {
        return g_dbus_connection_emit_signal(m_Connection, nullptr, path, interface, signal,
                                             g_variant_new_parsed(body), nullptr) != 0 &&
               g_dbus_connection_flush_sync(m_Connection, nullptr, nullptr) != 0;
    }

private:
    static std::string Printed(GVariant* reply, const GError* error)
    {
        g_autofree gchar* printed = reply != nullptr ? g_variant_print(reply, TRUE) : nullptr;
        return printed != nullptr ? printed : error->message;
    }

    GDBusConnection* m_Connection;
};

class BusTest : public testing::Test
{
protected:
    void SetUp() override { ForgetLog(); }

    Dispatcher dispatcher;
    Server app{"app"}, proxy{"proxy", Velmora::TCServer::SERVER_TYPE_PROXY};
    const Velmora::TCMessage message = Message("x");
    Velmora::TCMessage reply;
};
