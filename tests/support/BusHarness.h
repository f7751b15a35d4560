// SPDX-License-Identifier: MIT
// Shared by the tests on a bus.
#pragma once

#include <algorithm>
#include <cstring>
#include <future>
#include <memory>

#include <gio/gio.h>

#include "ChildProcess.h"
#include "Harness.h"
#include "sennet/testing.h"

constexpr char kErrorReply[] = "('', uint32 0, '', '{\"dbus_result\":\"fail\",\"errmsg\":\"error "
                               "handling\"}', [(byte 0x00,)])";
constexpr char kCall[] = "('me', uint32 0, '', 'x')";
constexpr char kAppStarts[] = "service_start_default app:{\"service_name\":\"app\"};";

inline std::string Text(const char* text)
{
    return text != nullptr ? text : "(null)";
}

// Records what its hooks get, and echoes messages.
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
    std::ptrdiff_t CountSeen()
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        return std::count(m_Seen.begin(), m_Seen.end(), ';');
    }
    void Note(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Seen += what + ";";
    }

    Velmora::TCEventIO* transferTo = nullptr;
    bool transfersToNull = false;
    std::function<void(Velmora::TCMessage& reply)> onMessage;
    std::atomic<GThread*> thread{nullptr}; // that handled the last message

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

// The same, but its destructor closes it.
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

// A service written without the library.
struct ForeignService : Support::ChildProcess
{
    ForeignService(const char* busName, const char* mode)
        : ChildProcess({FOREIGN_PEER, busName, mode})
    {}
};

// A client of the bus written without the library.
class RawPeer
{
public:
    RawPeer()
        : m_Connection(g_dbus_connection_new_for_address_sync(
              g_getenv("DBUS_SYSTEM_BUS_ADDRESS"),
              static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
              nullptr, nullptr, nullptr))
    {}
    ~RawPeer() { g_dbus_connection_close_sync(Get(), nullptr, nullptr); }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    GDBusConnection* Get() const { return m_Connection.get(); }

    // The process id of the bus.
    pid_t Daemon() const
    {
        constexpr char bus[] = "org.freedesktop.DBus";
        const std::string said =
            Call(bus, "GetConnectionUnixProcessID", "('org.freedesktop.DBus',)");
        return std::stoi(said.substr(std::strlen("(uint32 ")));
    }

    // Returns the printed reply of a call, or the message of the error.
    std::string Call(const std::string& name, const char* method = "SendMessage",
                     const char* body = kCall, int timeout = 10000) const
    {
        g_autoptr(GError) error = nullptr;
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            Get(), name.c_str(), Velmora::TCServerHelper::GetObjectPath(name).c_str(), name.c_str(),
            method, g_variant_new_parsed(body), nullptr, G_DBUS_CALL_FLAGS_NONE, timeout, nullptr,
            &error);
        return Printed(reply, error);
    }
    // Is sent before all later calls. The reply arrives on the dispatch thread.
    std::future<std::string> CallLater(const std::string& name) const
    {
        using Said = std::promise<std::string>;
        const auto note = [](GObject* source, GAsyncResult* result, void* data) {
            const std::unique_ptr<Said> said(static_cast<Said*>(data));
            g_autoptr(GError) error = nullptr;
            g_autoptr(GVariant) reply = g_dbus_connection_call_finish(
                reinterpret_cast<GDBusConnection*>(source), result, &error);
            said->set_value(Printed(reply, error));
        };
        auto* const said = new Said; // owned by the callback
        auto future = said->get_future();
        g_dbus_connection_call(Get(), name.c_str(),
                               Velmora::TCServerHelper::GetObjectPath(name).c_str(), name.c_str(),
                               "SendMessage", g_variant_new_parsed(kCall), nullptr,
                               G_DBUS_CALL_FLAGS_NONE, -1, nullptr, note, said);
        return future;
    }
    bool Emit(const char* path, const char* interface, const char* signal, const char* body) const
    {
        return g_dbus_connection_emit_signal(Get(), nullptr, path, interface, signal,
                                             g_variant_new_parsed(body), nullptr) != 0 &&
               g_dbus_connection_flush_sync(Get(), nullptr, nullptr) != 0;
    }

private:
    static std::string Printed(GVariant* reply, const GError* error)
    {
        g_autofree gchar* printed = reply != nullptr ? g_variant_print(reply, TRUE) : nullptr;
        return printed != nullptr ? printed : error->message;
    }

    Velmora::Internal::ConnectionPtr m_Connection;
};

class BusTest : public testing::Test
{
protected:
    void SetUp() override { ForgetLog(); }
    void AwaitDispatch()
    {
        dispatcher.Run([] {});
    } // until all that is queued now has run

    Velmora::Testing::LoopThread dispatcher;
    Server app{"app"}, proxy{"proxy", Velmora::TCServer::SERVER_TYPE_PROXY};
    const Velmora::TCMessage message = Message("x");
    Velmora::TCMessage reply;
};
