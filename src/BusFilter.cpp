// SPDX-License-Identifier: MIT
#include "BusFilter.h"

#include <new>
#include <set>

#include <gio/gunixfdlist.h>

#include "BusInputHold.h"
#include "Locks.h"
#include "extra/CallTable.h"
#include "extra/LossWatch.h"

namespace Velmora::Internal {

namespace {

using Rule = std::pair<std::string, std::string>;

// One set for all connections. A process with two of them has lost the first.
struct RuleSet
{
    Mutex mutex;
    std::multiset<Rule> withoutDescriptors SENNET_THREAD_SAFETY(guarded_by(mutex));
};

// Never destroyed: a worker thread may be in the filter when the process ends.
RuleSet& Rules()
{
    static auto& rules = *new RuleSet;
    return rules;
}

bool HasRule(const Rule& rule)
{
    RuleSet& rules = Rules();
    const Lock lock(rules.mutex);
    return rules.withoutDescriptors.count(rule) > 0;
}

std::string OrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

bool LosesDescriptors(GDBusMessage* message)
try {
    switch (g_dbus_message_get_message_type(message)) {
    case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
        return HasRule({OrEmpty(g_dbus_message_get_path(message)), ""});
    case G_DBUS_MESSAGE_TYPE_SIGNAL: {
        const std::string member = OrEmpty(g_dbus_message_get_member(message));
        return HasRule({OrEmpty(g_dbus_message_get_interface(message)), member}) ||
               HasRule({"", member});
    }
    default:
        return false;
    }
} catch (const std::bad_alloc&) { // must not pass through GDBus
    return true;                  // dropping them is safe: only very long names use up the memory
}

// The message itself is locked, and g_dbus_message_copy would copy the descriptors as well.
GDBusMessage* CopyWithoutDescriptors(GDBusMessage* message)
{
    GDBusMessage* const copy = g_dbus_message_new();
    g_dbus_message_set_byte_order(copy, g_dbus_message_get_byte_order(message));
    g_dbus_message_set_message_type(copy, g_dbus_message_get_message_type(message));
    g_dbus_message_set_flags(copy, g_dbus_message_get_flags(message));
    g_dbus_message_set_serial(copy, g_dbus_message_get_serial(message));
    guchar* const fields = g_dbus_message_get_header_fields(message);
    for (const guchar* field = fields; *field != G_DBUS_MESSAGE_HEADER_FIELD_INVALID; ++field) {
        const auto name = static_cast<GDBusMessageHeaderField>(*field);
        if (name != G_DBUS_MESSAGE_HEADER_FIELD_NUM_UNIX_FDS) {
            g_dbus_message_set_header(copy, name, g_dbus_message_get_header(message, name));
        }
    }
    g_free(fields);
    if (GVariant* const body = g_dbus_message_get_body(message); body != nullptr) {
        g_dbus_message_set_body(copy, body);
    }
    return copy;
}

GDBusMessage* Filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                     gpointer /*data*/)
{
    if (incoming == 0) {
        return message;
    }
    BusInputHold::AwaitRelease();
    if (LossWatch::TakesAnswer(connection, message) ||
        CallTable::TakesMessage(connection, message)) {
        g_object_unref(message);
        return nullptr;
    }
    if (g_dbus_message_get_unix_fd_list(message) == nullptr || !LosesDescriptors(message)) {
        return message;
    }
    GDBusMessage* const copy = CopyWithoutDescriptors(message);
    g_object_unref(message);
    return copy;
}

} // namespace

void AddBusFilter(GDBusConnection* connection)
{
    g_dbus_connection_add_filter(connection, &Filter, nullptr, nullptr);
}

NoDescriptors::NoDescriptors(std::string path) : NoDescriptors(std::move(path), "") {}

NoDescriptors::NoDescriptors(std::string interfaceName, std::string member)
    : m_Rule(std::move(interfaceName), std::move(member))
{
    RuleSet& rules = Rules();
    const Lock lock(rules.mutex);
    rules.withoutDescriptors.insert(m_Rule);
}

NoDescriptors::~NoDescriptors()
{
    RuleSet& rules = Rules();
    const Lock lock(rules.mutex);
    const auto found = rules.withoutDescriptors.find(m_Rule);
    SENNET_CHECK(found != rules.withoutDescriptors.end());
    rules.withoutDescriptors.erase(found);
}

} // namespace Velmora::Internal
