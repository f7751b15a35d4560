// SPDX-License-Identifier: MIT
#include "extra/OwnerLeaves.h"

#include <algorithm>

namespace Velmora::Internal {

namespace {

// The bus lets a connection have 512 match rules.
constexpr std::size_t kMaxListeners = 64;

constexpr char kBus[] = "org.freedesktop.DBus";

// Sends "AddMatch" or "RemoveMatch" and waits for nothing. If the bus refuses a rule, an answer
// "NoReply" counts as a time limit.
void SendRule(GDBusConnection* connection, const char* method, const std::string& name)
{
    const std::string rule = "type='signal',sender='org.freedesktop.DBus',"
                             "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
                             name + "'";
    g_dbus_connection_call(connection, kBus, "/org/freedesktop/DBus", kBus, method,
                           g_variant_new("(s)", rule.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                           nullptr, nullptr, nullptr);
}

} // namespace

std::uint64_t OwnerLeaves::Listen(GDBusConnection* connection, const std::string& name)
{
    const auto found = m_Listeners.find(name);
    if (found != m_Listeners.end()) {
        found->second.used = ++m_Now;
        return m_Now;
    }
    if (m_Listeners.size() >= kMaxListeners) {
        const auto oldest =
            std::min_element(m_Listeners.begin(), m_Listeners.end(), [](auto& one, auto& other) {
                return one.second.used < other.second.used;
            });
        SendRule(connection, "RemoveMatch", oldest->first);
        m_Listeners.erase(oldest);
    }
    m_Listeners[name] = {++m_Now, 0};
    SendRule(connection, "AddMatch", name);
    return m_Now;
}

bool OwnerLeaves::HasLeft(const std::string& name, std::uint64_t mark) const
{
    const auto found = m_Listeners.find(name);
    return found == m_Listeners.end() || found->second.left > mark;
}

void OwnerLeaves::Note(GDBusMessage* signal)
{
    GVariant* const body = g_dbus_message_get_body(signal);
    if (g_strcmp0(g_dbus_message_get_sender(signal), kBus) != 0 || body == nullptr ||
        !g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)"))) {
        return;
    }
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    g_variant_get(body, "(&s&s&s)", &name, &oldOwner, nullptr);
    const auto found = m_Listeners.find(name);
    if (found != m_Listeners.end() && *oldOwner != '\0') {
        found->second.left = ++m_Now;
    }
}

void OwnerLeaves::StopAll(GDBusConnection* connection)
{
    for (const auto& [name, listener] : m_Listeners) {
        SendRule(connection, "RemoveMatch", name);
    }
    m_Listeners.clear();
}

} // namespace Velmora::Internal
