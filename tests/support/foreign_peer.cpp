// SPDX-License-Identifier: MIT
// A service written without the library: foreign_peer NAME.message die|mute|BODY. On every call it
// exits, does nothing, or replies with BODY, which is GVariant text.
#include <cstdlib>
#include <cstring>

#include <gio/gio.h>

namespace {

GDBusMessage* OnMessage(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                        gpointer mode)
{
    const auto* const answer = static_cast<const char*>(mode);
    if (incoming == 0 ||
        g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return message;
    }
    if (std::strcmp(answer, "die") == 0) {
        std::_Exit(1);
    }
    if (std::strcmp(answer, "mute") != 0) {
        GDBusMessage* const reply = g_dbus_message_new_method_reply(message);
        g_dbus_message_set_body(reply, g_variant_new_parsed(answer));
        g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
        g_object_unref(reply);
    }
    g_object_unref(message);
    return nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        return 2;
    }
    GDBusConnection* const connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_dbus_connection_add_filter(connection, OnMessage, argv[2], nullptr);
    g_bus_own_name_on_connection(connection, argv[1], G_BUS_NAME_OWNER_FLAGS_REPLACE, nullptr,
                                 nullptr, nullptr, nullptr);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
