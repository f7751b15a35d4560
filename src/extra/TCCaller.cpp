// SPDX-License-Identifier: MIT
#include "TCCaller.h"

#include <algorithm>
#include <cstring>

#include <unistd.h>

#include "GLibPtr.h"
#include "InboundCall.h"
#include "Locks.h"
#include "TCLog.h"
#include "extra/LruMap.h"

namespace Velmora {

using namespace Internal;

struct Internal::Credentials
{
    std::optional<uid_t> user;
    std::optional<pid_t> process;
    std::vector<gid_t> groups;
    std::string label;
};

namespace {

using CredentialsPtr = std::shared_ptr<const Credentials>;

constexpr std::size_t kMaxCallers = 256;
constexpr int kAskLimit = 5000; // milliseconds

// Belongs to a connection, and goes with it: after a restart of the bus, the unique names are given
// to others.
struct KnownCallers
{
    Mutex mutex;
    LruMap<CredentialsPtr> callers SENNET_THREAD_SAFETY(guarded_by(mutex)){kMaxCallers};

    static KnownCallers& Of(GDBusConnection* connection)
    {
        constexpr char key[] = "sennet-callers";
        static Mutex making;
        const Lock lock(making);
        auto* const object = G_OBJECT(connection);
        if (void* const known = g_object_get_data(object, key); known != nullptr) {
            return *static_cast<KnownCallers*>(known);
        }
        auto* const made = new KnownCallers; // the connection's
        g_object_set_data_full(object, key, made,
                               [](void* data) { delete static_cast<KnownCallers*>(data); });
        return *made;
    }
};

std::vector<gid_t> ReadGroups(GVariant* list)
{
    std::vector<gid_t> groups;
    gsize count = 0;
    const auto* const ids =
        static_cast<const guint32*>(g_variant_get_fixed_array(list, &count, sizeof(guint32)));
    groups.assign(ids, ids + count);
    return groups;
}

std::optional<guint32> ReadNumber(GVariant* credentials, const char* key)
{
    guint32 number = 0;
    return g_variant_lookup(credentials, key, "u", &number) != 0 ? std::optional(number)
                                                                 : std::nullopt;
}

// D-Bus protocol, "org.freedesktop.DBus.GetConnectionCredentials".
Credentials Read(GVariant* credentials)
{
    Credentials read;
    if (const auto user = ReadNumber(credentials, "UnixUserID"); user.has_value()) {
        read.user = *user;
    }
    if (const auto process = ReadNumber(credentials, "ProcessID"); process.has_value()) {
        read.process = static_cast<pid_t>(*process);
    }
    if (const VariantPtr groups(
            g_variant_lookup_value(credentials, "UnixGroupIDs", G_VARIANT_TYPE("au")));
        groups) {
        read.groups = ReadGroups(groups.get());
    }
    if (const VariantPtr label(
            g_variant_lookup_value(credentials, "LinuxSecurityLabel", G_VARIANT_TYPE_BYTESTRING));
        label) {
        read.label = g_variant_get_bytestring(label.get());
    }
    return read;
}

// Null, with an error line, if the bus does not tell.
CredentialsPtr Ask(GDBusConnection* connection, const std::string& sender)
{
    GError* raw = nullptr;
    const VariantPtr answer(g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetConnectionCredentials", g_variant_new("(s)", sender.c_str()), G_VARIANT_TYPE("(a{sv})"),
        G_DBUS_CALL_FLAGS_NONE, kAskLimit, nullptr, &raw));
    const ErrorPtr error(raw);
    if (!answer) {
        VELMORA_LOGE("cannot tell who %s is: %s", sender.c_str(), error->message);
        return nullptr;
    }
    const VariantPtr credentials(g_variant_get_child_value(answer.get(), 0));
    return std::make_shared<Credentials>(Read(credentials.get()));
}

CredentialsPtr Find(GDBusConnection* connection, const std::string& sender)
{
    KnownCallers& known = KnownCallers::Of(connection);
    {
        const Lock lock(known.mutex);
        if (const CredentialsPtr* const found = known.callers.Find(sender); found != nullptr) {
            return *found;
        }
    }
    CredentialsPtr asked = Ask(connection, sender);
    if (asked != nullptr) {
        const Lock lock(known.mutex);
        if (known.callers.Find(sender) == nullptr) { // else another hook was faster
            known.callers.Add(sender, asked);
        }
    }
    return asked;
}

CredentialsPtr OfThisProcess()
{
    auto own = std::make_shared<Credentials>();
    own->user = geteuid();
    own->process = getpid();
    const int count = getgroups(0, nullptr);
    own->groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    const int read = getgroups(count, own->groups.data());
    own->groups.resize(static_cast<std::size_t>(std::max(read, 0)));
    own->groups.push_back(getegid());
    return own;
}

} // namespace

TCCaller TCCaller::Current()
{
    TCCaller caller;
    const InboundCall* const call = InboundCall::Current();
    if (call == nullptr) {
        return caller;
    }
    caller.m_Exists = true;
    caller.m_Local = call->Connection() == nullptr;
    caller.m_WantsAnswer = call->WantsAnswer();
    caller.m_UniqueName = call->Sender();
    caller.m_Credentials =
        caller.m_Local ? OfThisProcess() : Find(call->Connection(), call->Sender());
    return caller;
}

std::optional<uid_t> TCCaller::User() const
{
    return m_Credentials != nullptr ? m_Credentials->user : std::nullopt;
}

std::optional<pid_t> TCCaller::Process() const
{
    return m_Credentials != nullptr ? m_Credentials->process : std::nullopt;
}

std::vector<gid_t> TCCaller::Groups() const
{
    return m_Credentials != nullptr ? m_Credentials->groups : std::vector<gid_t>();
}

bool TCCaller::IsInGroup(gid_t group) const
{
    if (m_Credentials == nullptr) {
        return false;
    }
    const std::vector<gid_t>& groups = m_Credentials->groups;
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

std::string TCCaller::SecurityLabel() const
{
    return m_Credentials != nullptr ? m_Credentials->label : std::string();
}

} // namespace Velmora
