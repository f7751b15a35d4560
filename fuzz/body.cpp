// SPDX-License-Identifier: MIT
// Bodies from peers without the library, from the socket to the hooks and back.
//
// The input is a digit for the route, the signature of the body, a NUL, and the body as serialised
// by GVariant.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include <gio/gio.h>

#include "../src/GLibPtr.h"
#include "Check.h"
#include "TCLog.h"
#include "TCServer.h"

using namespace Velmora;
using namespace Velmora::Internal;

namespace {

using MessagePtr = std::unique_ptr<GDBusMessage, Releaser<g_object_unref>>;

constexpr char kService[] = "fuzzed";
constexpr char kName[] = "fuzzed.message";
constexpr char kPath[] = "/fuzzed/message";
constexpr char kPeer[] = ":1.2";

// Replaces the bus daemon and every peer on the bus. It answers on GDBus's thread, since the main
// thread may wait inside a send.
class Bus
{
public:
    Bus()
    {
        std::unique_ptr<char, Releaser<g_free>> guid(g_dbus_generate_guid());
        m_Server = g_dbus_server_new_sync("unix:tmpdir=/tmp", G_DBUS_SERVER_FLAGS_NONE, guid.get(),
                                          nullptr, nullptr, nullptr);
        Check(m_Server != nullptr);
        g_signal_connect(m_Server, "new-connection", G_CALLBACK(&OnConnection), this);
        g_dbus_server_start(m_Server);
        g_setenv("DBUS_SYSTEM_BUS_ADDRESS", g_dbus_server_get_client_address(m_Server), TRUE);
        // Connect here: the library connects synchronously, and no thread would be left to accept.
        // It uses this connection.
        const auto connected = [](GObject*, GAsyncResult* result, gpointer self) {
            Check(g_bus_get_finish(result, nullptr) != nullptr);
            static_cast<Bus*>(self)->m_Done = true;
        };
        g_bus_get(G_BUS_TYPE_SYSTEM, nullptr, connected, this);
        Await();
    }

    // Sets the body of replies to the library's calls. It must outlive them.
    void SetBody(GVariant* body) { m_Body = body; }

    void Send(GDBusMessage* message)
    {
        g_dbus_message_set_sender(message, kPeer);
        Check(g_dbus_connection_send_message(m_Connection, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                             nullptr, nullptr) != 0);
    }
    MessagePtr Call(GDBusMessage* call)
    {
        Send(call);
        Await();
        return std::move(m_Answer);
    }

    // Runs the main loop until Finish().
    void Await()
    {
        while (!m_Done) {
            g_main_context_iteration(nullptr, TRUE);
        }
        m_Done = false;
    }
    void Finish()
    {
        m_Done = true;
        g_main_context_wakeup(nullptr);
    }

private:
    static gboolean OnConnection(GDBusServer*, GDBusConnection* connection, Bus* self)
    {
        self->m_Connection = G_DBUS_CONNECTION(g_object_ref(connection));
        g_dbus_connection_add_filter(connection, &OnMessage, self, nullptr);
        return TRUE;
    }
    static GDBusMessage* OnMessage(GDBusConnection*, GDBusMessage* raw, gboolean incoming,
                                   gpointer self)
    {
        if (incoming == 0) {
            return raw;
        }
        static_cast<Bus*>(self)->Receive(MessagePtr(raw));
        return nullptr;
    }
    void Receive(MessagePtr message)
    {
        switch (g_dbus_message_get_message_type(message.get())) {
        case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
            Answer(message.get());
            break;
        case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
        case G_DBUS_MESSAGE_TYPE_ERROR:
            m_Answer = std::move(message);
            Finish();
            break;
        default:
            break;
        }
    }
    void Answer(GDBusMessage* call)
    {
        const std::string member = g_dbus_message_get_member(call);
        MessagePtr reply(g_dbus_message_new_method_reply(call));
        if (member == "Hello") {
            g_dbus_message_set_body(reply.get(), g_variant_new("(s)", ":1.1"));
        } else if (member == "RequestName") {
            g_dbus_message_set_body(reply.get(), g_variant_new("(u)", 1));
        } else if (member == "SendMessage") {
            g_dbus_message_set_body(reply.get(), m_Body);
        } else {
            return;
        }
        Send(reply.get());
        if (member == "SendMessage") { // arrives after the reply
            Send(MessagePtr(g_dbus_message_new_signal("/peer", "peer.message", "over")).get());
        }
    }

    GDBusServer* m_Server;
    GDBusConnection* m_Connection = nullptr;
    std::atomic<bool> m_Done{false}; // publishes m_Answer
    MessagePtr m_Answer;
    GVariant* m_Body = nullptr;
};

// The content of a body. Empty if the body has no known shape.
struct Content
{
    explicit Content(GVariant* body)
    {
        if (g_variant_is_of_type(body, G_VARIANT_TYPE("(suss)")) != 0) {
            g_variant_get(body, "(&su&s&s)", &from, &code, &type, &text);
        } else if (g_variant_is_of_type(body, G_VARIANT_TYPE("(sussa(y))")) != 0) {
            GVariant* raw = nullptr;
            g_variant_get(body, "(&su&s&s@a(y))", &from, &code, &type, &text, &raw);
            const VariantPtr array(raw);
            const auto* const bytes = static_cast<const char*>(g_variant_get_data(raw));
            buffer.assign(bytes, g_variant_get_size(raw));
        }
        if (buffer == std::string(1, '\0')) {
            buffer.clear();
        }
    }

    bool IsIn(const char* sender, const TCMessage& message) const
    {
        unsigned char* bytes = nullptr;
        const unsigned int size = message.GetBuffer(bytes);
        return g_strcmp0(sender, from) == 0 && message.m_Code == code && message.m_Type == type &&
               message.GetString() == text &&
               std::string(reinterpret_cast<const char*>(bytes), size) == buffer;
    }

    const char* from = nullptr;
    guint32 code = 0;
    const char* type = "";
    const char* text = "";
    std::string buffer;
};

// Checks that the body arrives unchanged, and echoes messages.
class Server : public TCServer
{
public:
    explicit Server(Bus& bus) : TCServer(kService, SERVER_TYPE_SERVICE), m_Bus(bus)
    {
        Check(CreateDBusServer());
        const auto arrived = [](const char* from, const char*, TCMessage* message, void* self) {
            static_cast<Server*>(self)->Arrived(from, *message);
        };
        const auto over = [](const char*, const char*, TCMessage*, void* self) {
            static_cast<Server*>(self)->m_Bus.Finish();
        };
        Check(SubscribeSignal("peer", "called", arrived, this) &&
              SubscribeSignal("peer", "hooked", nullptr, nullptr) &&
              SubscribeSignal("peer", "over", over, this));
    }

    void Call(const char* method, GVariant* body)
    {
        Expect(body);
        MessagePtr call(g_dbus_message_new_method_call(nullptr, kPath, kName, method));
        g_dbus_message_set_body(call.get(), body);
        const MessagePtr answer = m_Bus.Call(call.get());
        const bool refused =
            g_dbus_message_get_message_type(answer.get()) == G_DBUS_MESSAGE_TYPE_ERROR; // by GDBus
        Check(refused == !m_Arrived);
        if (!refused) {
            const Content content(body);
            TCData echo(content.text);
            echo.Generate();
            const Content reply(g_dbus_message_get_body(answer.get()));
            Check(std::strcmp(reply.from, kService) == 0 && reply.code == content.code &&
                  std::strcmp(reply.type, content.type) == 0 && reply.text == echo.GetMessage() &&
                  reply.buffer == content.buffer);
        }
    }
    void Signal(const char* member, GVariant* body)
    {
        Expect(body);
        MessagePtr signal(g_dbus_message_new_signal("/peer", "peer.message", member));
        g_dbus_message_set_body(signal.get(), body);
        m_Bus.Send(signal.get());
        m_Bus.Send(MessagePtr(g_dbus_message_new_signal("/peer", "peer.message", "over")).get());
        m_Bus.Await();
        Check(m_Arrived);
    }
    void Reply(bool sync, GVariant* body)
    {
        Expect(body);
        m_Bus.SetBody(body);
        TCMessage request, reply;
        const bool success = SendMessage("peer", &request, sync, &reply);
        m_Bus.Await();
        const Content content(body);
        if (sync) {
            Check(content.IsIn(content.from, reply));
        } else {
            Check(success && m_Arrived == (*content.type != '\0' || *content.text != '\0' ||
                                           !content.buffer.empty()));
        }
    }

protected:
    bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        Arrived(from, *message);
        *reply = *message;
        return true;
    }
    bool IfMessageReplied(const char* from, const TCMessage* message) override
    {
        Arrived(from, *message);
        return true;
    }

private:
    void Expect(GVariant* body)
    {
        m_Expected = body;
        m_Arrived = false;
    }
    void Arrived(const char* from, const TCMessage& message)
    {
        Check(Content(m_Expected).IsIn(from, message));
        m_Arrived = true;
    }

    Bus& m_Bus;
    GVariant* m_Expected = nullptr;
    bool m_Arrived = false;
};

// Returns null for input that GDBus cannot receive from a bus.
VariantPtr ReadInput(const char* data, std::size_t size)
{
    const auto* const end = static_cast<const char*>(std::memchr(data, '\0', size));
    if (end == nullptr || g_variant_is_signature(data) == 0) {
        return nullptr;
    }
    const std::string type = "(" + std::string(data) + ")";
    const VariantPtr bytes(g_variant_ref_sink(g_variant_new_fixed_array(
        G_VARIANT_TYPE_BYTE, end + 1, static_cast<std::size_t>(data + size - end - 1), 1)));
    const std::unique_ptr<GBytes, Releaser<g_bytes_unref>> content(
        g_variant_get_data_as_bytes(bytes.get()));
    const VariantPtr untrusted(g_variant_ref_sink(
        g_variant_new_from_bytes(G_VARIANT_TYPE(type.c_str()), content.get(), FALSE)));
    VariantPtr body(g_variant_get_normal_form(untrusted.get()));

    MessagePtr message(g_dbus_message_new_signal(kPath, kName, "probe"));
    g_dbus_message_set_serial(message.get(), 1);
    g_dbus_message_set_body(message.get(), body.get());
    gsize length = 0;
    const std::unique_ptr<guchar, Releaser<g_free>> blob(
        g_dbus_message_to_blob(message.get(), &length, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr));
    const MessagePtr received(blob ? g_dbus_message_new_from_blob(
                                         blob.get(), length, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr)
                                   : nullptr);
    return received ? std::move(body) : nullptr;
}

} // namespace

// Formats each line, so that its arguments are read.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __dlog_print(int /*log_id*/, int /*priority*/, const char* /*tag*/,
                            const char* format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    const int size = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return size;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static auto& bus = *new Bus; // both live until the end of the process
    static auto& server = *new Server(bus);
    if (size == 0) {
        return 0;
    }
    const VariantPtr body = ReadInput(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (!body) {
        return 0;
    }
    switch (*data) {
    case '0':
        server.Call("SendMessage", body.get());
        break;
    case '1':
        server.Call("SendMessageWithBuffer", body.get());
        break;
    case '2':
        server.Signal("called", body.get());
        break;
    case '3':
        server.Signal("hooked", body.get());
        break;
    case '4':
        server.Reply(true, body.get());
        break;
    case '5':
        server.Reply(false, body.get());
        break;
    default:
        return 0;
    }
    return 0;
}
