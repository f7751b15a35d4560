// SPDX-License-Identifier: MIT
#include "extra/OwnerTracker.h"

#include <utility>

#include "GLibPtr.h"

namespace Velmora::Internal {

namespace {

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";

} // namespace

// GDBus hands over signals and answers in the order in which they have arrived, so whatever comes
// last is the present owner.
void OwnerTracker::Start(GDBusConnection* connection)
{
    m_Subscription = g_dbus_connection_signal_subscribe(
        connection, kBus, kBus, "NameOwnerChanged", kBusPath, m_BusName.c_str(),
        G_DBUS_SIGNAL_FLAGS_NONE, &OnSignal, new Self(shared_from_this()),
        [](void* self) { delete static_cast<Self*>(self); });
    g_dbus_connection_call(connection, kBus, kBusPath, kBus, "GetNameOwner",
                           g_variant_new("(s)", m_BusName.c_str()), G_VARIANT_TYPE("(s)"),
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &OnAnswer,
                           new Self(shared_from_this())); // OnAnswer frees it
}

void OwnerTracker::Stop(GDBusConnection* connection)
{
    m_OnChange = nullptr;
    if (const unsigned int subscription = std::exchange(m_Subscription, 0); subscription != 0) {
        g_dbus_connection_signal_unsubscribe(connection, subscription);
    }
}

void OwnerTracker::End(GDBusConnection* connection)
{
    const Self held = shared_from_this();
    Set("");
    Stop(connection);
}

void OwnerTracker::OnSignal(GDBusConnection* /*connection*/, const char* sender,
                            const char* /*path*/, const char* /*interfaceName*/,
                            const char* /*signalName*/, GVariant* parameters, void* self)
{
    if (g_strcmp0(sender, kBus) != 0 ||
        g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sss)")) == 0) {
        return;
    }
    const Self tracker = *static_cast<Self*>(self);
    const char* former = nullptr;
    const char* owner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", nullptr, &former, &owner);
    if (!tracker->m_Owner.has_value()) {
        tracker->Set(former); // who owned it when this began
    }
    tracker->Set(owner);
}

void OwnerTracker::OnAnswer(GObject* source, GAsyncResult* result, void* self)
{
    const std::unique_ptr<Self> tracker(static_cast<Self*>(self));
    const VariantPtr answer(
        g_dbus_connection_call_finish(reinterpret_cast<GDBusConnection*>(source), result, nullptr));
    const char* owner = "";
    if (answer) {
        g_variant_get(answer.get(), "(&s)", &owner);
    } // else an error: nobody owns the name
    (*tracker)->Set(owner);
}

void OwnerTracker::Set(const std::string& owner)
{
    if (m_OnChange && (!m_Owner.has_value() || *m_Owner != owner)) {
        const std::string former = m_Owner.value_or("");
        m_Owner = owner;
        m_OnChange(former, owner);
    }
}

} // namespace Velmora::Internal
