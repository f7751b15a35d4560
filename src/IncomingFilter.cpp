#include "IncomingFilter.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <set>

#include <gio/gunixfdlist.h>

namespace Velmora::Internal {

namespace {

using Rule = std::pair<std::string, std::string>;

// For all connections: who has two has lost one of them.
struct FilterState
{
    std::mutex mutex; // guards the other fields
    std::condition_variable released;
    int holds = 0;
    std::multiset<Rule> withoutDescriptors;
};

// Never destroyed: the worker may be waiting.
FilterState& State()
{
    static auto& state = *new FilterState;
    return state;
}

void AwaitRelease()
{
    // For a moment at most: nothing that holds it may need the bus, but a thread may be paused.
    std::unique_lock<std::mutex> lock(State().mutex);
    State().released.wait_for(lock, std::chrono::seconds(1), [] { return State().holds == 0; });
}

std::string OrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

bool GoesWithoutDescriptors(GDBusMessage* message)
try {
    const auto type = g_dbus_message_get_message_type(message);
    const auto& rules = State().withoutDescriptors;
    if (type == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        const Rule rule(OrEmpty(g_dbus_message_get_path(message)), "");
        const std::lock_guard<std::mutex> lock(State().mutex);
        return rules.count(rule) > 0;
    }
    if (type == G_DBUS_MESSAGE_TYPE_SIGNAL) {
        const Rule rule(OrEmpty(g_dbus_message_get_interface(message)),
                        OrEmpty(g_dbus_message_get_member(message)));
        const std::lock_guard<std::mutex> lock(State().mutex);
        return rules.count(rule) > 0 || rules.count({"", rule.second}) > 0;
    }
    return false;
} catch (const std::bad_alloc&) { // not through GDBus; whoever sends such names attaches in vain
    return true;
}

// The message itself is locked, and g_dbus_message_copy would copy the descriptors, too.
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

GDBusMessage* Filter(GDBusConnection* /*connection*/, GDBusMessage* message, gboolean incoming,
                     gpointer /*data*/)
{
    if (incoming == 0) {
        return message;
    }
    AwaitRelease();
    if (g_dbus_message_get_unix_fd_list(message) == nullptr || !GoesWithoutDescriptors(message)) {
        return message;
    }
    GDBusMessage* const copy = CopyWithoutDescriptors(message);
    g_object_unref(message);
    return copy;
}

} // namespace

void AddIncomingFilter(GDBusConnection* connection)
{
    g_dbus_connection_add_filter(connection, &Filter, nullptr, nullptr);
}

HeldInput::HeldInput()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    ++State().holds;
}

HeldInput::~HeldInput()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    if (--State().holds == 0) {
        State().released.notify_all();
    }
}

NoDescriptors::NoDescriptors(std::string path) : NoDescriptors(std::move(path), "") {}

NoDescriptors::NoDescriptors(std::string interfaceName, std::string member)
    : m_Rule(std::move(interfaceName), std::move(member))
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().withoutDescriptors.insert(m_Rule);
}

NoDescriptors::~NoDescriptors()
{
    const std::lock_guard<std::mutex> lock(State().mutex);
    auto& rules = State().withoutDescriptors;
    rules.erase(rules.find(m_Rule));
}

} // namespace Velmora::Internal
