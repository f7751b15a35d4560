// SPDX-License-Identifier: MIT
#include "BusDaemon.h"

#include <algorithm>
#include <memory>

#include "Failure.h"
#include "ServiceNames.h"

namespace Ctl {

using namespace Velmora::Internal;

namespace {

constexpr char kBusName[] = "org.freedesktop.DBus";

ConnectionPtr TakeConnection(GDBusConnection* connection, GError* raw)
{
    const ErrorPtr error(raw);
    if (connection == nullptr) {
        throw Failure(kFailed, std::string("cannot connect to the system bus: ") + error->message);
    }
    // Otherwise GDBus would end the process without a message when the bus is lost.
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    return ConnectionPtr(connection);
}

VariantPtr TryCallBusDaemon(GDBusConnection* bus, const char* interface, const char* method,
                            GVariant* arguments, const char* answerType, ErrorPtr& error)
{
    GError* raw = nullptr;
    VariantPtr answer(g_dbus_connection_call_sync(bus, kBusName, "/org/freedesktop/DBus", interface,
                                                  method, arguments, G_VARIANT_TYPE(answerType),
                                                  G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &raw));
    error.reset(raw);
    return answer;
}

} // namespace

ConnectionPtr ConnectToBus()
{
    GError* error = nullptr;
    GDBusConnection* const connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    return TakeConnection(connection, error);
}

ConnectionPtr ConnectPrivately()
{
    GError* error = nullptr;
    const std::unique_ptr<char, Releaser<g_free>> address(
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error));
    GDBusConnection* connection = nullptr;
    if (address) {
        const auto flags =
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        connection =
            g_dbus_connection_new_for_address_sync(address.get(), flags, nullptr, nullptr, &error);
    }
    return TakeConnection(connection, error);
}

VariantPtr CallBusDaemon(GDBusConnection* bus, const char* interface, const char* method,
                         GVariant* arguments, const char* answerType)
{
    ErrorPtr error;
    VariantPtr answer = TryCallBusDaemon(bus, interface, method, arguments, answerType, error);
    if (!answer) {
        g_dbus_error_strip_remote_error(error.get());
        throw Failure(kFailed, std::string(method) + ": " + error->message);
    }
    return answer;
}

std::vector<BusService> ListServices(GDBusConnection* bus)
{
    const VariantPtr answer = CallBusDaemon(bus, kBusName, "ListNames", nullptr, "(as)");
    const VariantPtr names(g_variant_get_child_value(answer.get(), 0));
    std::vector<BusService> services;
    for (gsize i = 0; i < g_variant_n_children(names.get()); ++i) {
        const char* name = nullptr;
        g_variant_get_child(names.get(), i, "&s", &name);
        if (!IsServiceBusName(name)) {
            continue;
        }
        ErrorPtr error; // the service may have left since ListNames
        const VariantPtr owner = TryCallBusDaemon(bus, kBusName, "GetNameOwner",
                                                  g_variant_new("(s)", name), "(s)", error);
        if (owner) {
            const char* unique = nullptr;
            g_variant_get(owner.get(), "(&s)", &unique);
            services.push_back({ServiceName(name), name, unique});
        }
    }
    std::sort(services.begin(), services.end(),
              [](const BusService& a, const BusService& b) { return a.name < b.name; });
    return services;
}

} // namespace Ctl
