// SPDX-License-Identifier: MIT
#include "BusPeers.h"

#include <cstring>
#include <memory>
#include <string>

#include "../src/GLibPtr.h"
#include "TCServer.h"
#include "TCTask.h"
#include "sennet/testing.h"

namespace Benchmarks {

namespace {

using namespace Velmora;
using Velmora::Internal::ContextPtr;

bool Answer(const TCMessage* message, TCMessage* reply)
{
    if (message->m_Type != kSink) {
        *reply = *message;
    }
    return true;
}

class Echo : public TCServer
{
public:
    Echo() : TCServer(kOurs, SERVER_TYPE_SERVICE) {}

protected:
    bool IfMessageReceived(const char* /*from*/, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        return Answer(message, reply);
    }
};

class MovedEcho : public TCServer, public TCTask
{
public:
    MovedEcho() : TCServer("moved", SERVER_TYPE_ACTIVITY), TCTask("moved") {}

protected:
    bool IfTransferMessage(const char* /*from*/, const TCMessage* /*message*/,
                           TCEventIO*& target) override
    {
        target = this;
        return true;
    }
    bool IfMessageReceived(const char* /*from*/, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        return Answer(message, reply);
    }
};

void RawAnswer(GDBusMethodInvocation* invocation)
{
    GVariant* const body = g_dbus_method_invocation_get_parameters(invocation);
    const char *from = nullptr, *type = nullptr, *text = nullptr;
    guint32 code = 0;
    GVariant* buffer = nullptr;
    if (std::strcmp(g_dbus_method_invocation_get_method_name(invocation), "SendMessage") == 0) {
        g_variant_get(body, "(&su&s&s)", &from, &code, &type, &text);
    } else {
        g_variant_get(body, "(&su&s&s@a(y))", &from, &code, &type, &text, &buffer);
    }
    const std::string json = std::strcmp(type, kWithJson) == 0 ? WriteJson(ReadJson(text)) : "";
    const bool back = buffer != nullptr && std::strcmp(type, kSink) != 0;
    static constexpr unsigned char none = 0;
    GVariant* const answer =
        back ? buffer
             : g_variant_new_from_data(G_VARIANT_TYPE("a(y)"), &none, 1, TRUE, nullptr, nullptr);
    g_dbus_method_invocation_return_value(
        invocation,
        g_variant_new("(suss@a(y))", kRaw, code, type, json.empty() ? text : json.c_str(), answer));
    if (buffer != nullptr) {
        g_variant_unref(buffer);
    }
}

void RawCall(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
             const gchar* /*interface*/, const gchar* /*method*/, GVariant* /*body*/,
             GDBusMethodInvocation* invocation, gpointer context)
{
    if (context == nullptr) {
        RawAnswer(invocation);
        return;
    }
    g_main_context_invoke_full(
        static_cast<GMainContext*>(context), G_PRIORITY_DEFAULT,
        [](gpointer moved) -> gboolean {
            RawAnswer(static_cast<GDBusMethodInvocation*>(moved));
            return G_SOURCE_REMOVE;
        },
        invocation, nullptr);
}

const char kRawXml[] =
    "<node><interface name='bench.raw.message'>"
    "<method name='SendMessage'>"
    "<arg type='s' direction='in'/><arg type='u' direction='in'/>"
    "<arg type='s' direction='in'/><arg type='s' direction='in'/>"
    "<arg type='s' direction='out'/><arg type='u' direction='out'/>"
    "<arg type='s' direction='out'/><arg type='s' direction='out'/>"
    "<arg type='a(y)' direction='out'/></method>"
    "<method name='SendMessageWithBuffer'>"
    "<arg type='s' direction='in'/><arg type='u' direction='in'/>"
    "<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='a(y)' direction='in'/>"
    "<arg type='s' direction='out'/><arg type='u' direction='out'/>"
    "<arg type='s' direction='out'/><arg type='s' direction='out'/>"
    "<arg type='a(y)' direction='out'/></method></interface></node>";

[[noreturn]] void RunLoop()
{
    g_main_loop_run(g_main_loop_new(nullptr, FALSE)); // until the process is killed
    std::abort();
}

GDBusConnection* Bus()
{
    return g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
}

[[noreturn]] void RunOurs()
{
    Echo echo;
    MovedEcho moved;
    moved.Create("moved");
    echo.CreateDBusServer();
    moved.CreateDBusServer();
    RunLoop();
}

[[noreturn]] void RunRaw()
{
    static const GDBusInterfaceVTable table = {RawCall, nullptr, nullptr, {}};
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(kRawXml, nullptr);
    const ContextPtr moved(g_main_context_new());
    const Velmora::Testing::LoopThread thread(moved.get());
    g_dbus_connection_register_object(Bus(), kRawPath, node->interfaces[0], &table, nullptr,
                                      nullptr, nullptr);
    g_dbus_connection_register_object(Bus(), kRawMovedPath, node->interfaces[0], &table,
                                      moved.get(), nullptr, nullptr);
    g_bus_own_name_on_connection(Bus(), "bench.raw.message", G_BUS_NAME_OWNER_FLAGS_NONE, nullptr,
                                 nullptr, nullptr, nullptr);
    RunLoop();
}

// A batch of signals ends with the code 1, which a listener acknowledges.
void Acknowledge(guint32 code)
{
    if (code == 1) {
        g_dbus_connection_emit_signal(Bus(), nullptr, "/ack", "bench.ack", "Done", nullptr,
                                      nullptr);
    }
}

[[noreturn]] void RunListener(bool raw)
{
    TCServer proxy("listener", TCServer::SERVER_TYPE_PROXY);
    if (raw) {
        g_dbus_connection_signal_subscribe(
            Bus(), nullptr, "bench.emitter.message", "raw", nullptr, nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE,
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
               GVariant* body, gpointer) {
                const char *from = nullptr, *type = nullptr, *text = nullptr;
                guint32 code = 0;
                g_variant_get(body, "(&su&s&s)", &from, &code, &type, &text);
                Acknowledge(code);
            },
            nullptr, nullptr);
    } else {
        proxy.CreateDBusProxy();
        proxy.SubscribeSignal(
            "bench.emitter", "ours",
            [](const char*, const char*, TCMessage* message, void*) {
                Acknowledge(static_cast<guint32>(message->m_Code));
            },
            nullptr);
    }
    Acknowledge(1); // ready
    RunLoop();
}

} // namespace

Json::Value ReadJson(const char* text)
{
    std::string errors;
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    reader->parse(text, text + std::strlen(text), &value, &errors);
    return value;
}

std::string WriteJson(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

int RunPeer(const char* role)
{
    if (std::strcmp(role, "ours") == 0) {
        RunOurs();
    } else if (std::strcmp(role, "raw") == 0) {
        RunRaw();
    } else if (std::strcmp(role, "listen-ours") == 0) {
        RunListener(false);
    } else if (std::strcmp(role, "listen-raw") == 0) {
        RunListener(true);
    }
    return 2;
}

} // namespace Benchmarks
