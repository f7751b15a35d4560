#include "TCServer.h"

#include <cstdio>
#include <utility>
#include <vector>

#include "BusBody.h"
#include "BusConnection.h"
#include "BusHandle.h"
#include "MutexGuard.h"
#include "TCServerCallbacks.h"
#include "TCServerGate.h"

namespace Velmora {

using namespace Internal;

namespace {

constexpr char kSuffix[] = ".message";

// Guards TCServer::m_CreatedDbusServers; held for one operation of the map, never across a call of
// the bus or of a client.
std::mutex& RegistryMutex()
{
    static std::mutex mutex;
    return mutex;
}

// When a connection closes, GDBus ends its name ownerships on the dispatch thread, and nothing
// keeps that from meeting g_bus_unown_name on another thread. So what was owned on a lost
// connection is given up on the dispatch thread.
void UnownName(GDBusConnection* connection, unsigned int owner)
{
    if (g_dbus_connection_is_closed(connection) == 0) {
        g_bus_unown_name(owner);
        return;
    }
    const auto unown = [](void* id) -> gboolean {
        g_bus_unown_name(GPOINTER_TO_UINT(id));
        return G_SOURCE_REMOVE;
    };
    g_main_context_invoke(nullptr, unown, GUINT_TO_POINTER(owner));
}

} // namespace

std::map<std::string, TCServer*> TCServer::m_CreatedDbusServers;

const GDBusInterfaceVTable TCServer::m_gVTable = {
    &TCServer::m_DObjectHandler, nullptr, nullptr, {}};

TCServer::TCServer(std::string name, TCServerType type)
    : m_ServerType(type), m_ServiceName(std::move(name)), m_DBusName(m_ServiceName + kSuffix)
{
    m_SignalManager.Init();
    m_ServerMutex.Create();
    try {
        LiveServers::Add(this);
    } catch (...) {
        m_ServerMutex.Destroy();
        throw;
    }
}

TCServer::~TCServer()
{
    LiveServers::Remove(this);
    m_ServerMutex.Destroy();
}

GMainLoop* TCServer::GetMainLoop()
{
    VELMORA_LOGE("Dangerous!!! GetMainLoop!!!");
    return m_MainLoop;
}

bool TCServer::IfTransferMessage(const char* /*from*/, const TCMessage* /*message*/,
                                 TCEventIO*& /*target*/)
{
    return false;
}

bool TCServer::IfMessageReceived(const char* /*from*/, const TCMessage* /*message*/,
                                 TCMessage* /*reply*/, const char* /*signalName*/)
{
    return false;
}

bool TCServer::IfMessageReplied(const char* /*from*/, const TCMessage* /*message*/)
{
    return false;
}

TCServer* TCServer::m_GetDbusServer(const char* source)
{
    if (source == nullptr) {
        VELMORA_LOG_NULL("source");
        return nullptr;
    }
    {
        const std::lock_guard<std::mutex> lock(RegistryMutex());
        const auto found = m_CreatedDbusServers.find(source);
        if (found != m_CreatedDbusServers.end()) {
            return found->second;
        }
    }
    VELMORA_LOGE("Couldn't find %s dbus server, subscribe fail", source);
    return nullptr;
}

// Into the server of an entry. One that was destroyed without a close has left its entry behind,
// and another server may stand in its place by now.
HookScope TCServer::m_EnterEntry(const std::string& name, TCServer* entry)
{
    HookScope server(entry);
    if (server && server->m_ServiceName != name) {
        server.Close();
    }
    return server;
}

// Into a server that the client has named as its own.
HookScope TCServer::m_RequireServer(const char* source)
{
    std::string busName;
    HookScope server = source != nullptr ? m_EnterServer(source, &busName) : HookScope();
    if (!server) {
        if (source != nullptr) {
            VELMORA_LOGE("Couldn't find %s dbus server, subscribe fail", source);
        } else {
            VELMORA_LOG_NULL("source");
        }
        VELMORA_LOG_NULL("server");
    }
    return server;
}

// Into a server that may or may not be in this process.
HookScope TCServer::m_EnterServer(const char* source, std::string* busName)
{
    const std::lock_guard<std::mutex> lock(RegistryMutex());
    const auto found = m_CreatedDbusServers.find(source);
    HookScope server = found != m_CreatedDbusServers.end()
                           ? m_EnterEntry(found->first, found->second)
                           : HookScope();
    if (server) {
        *busName = server->m_DBusName; // constant while it is registered
    }
    return server;
}

std::string TCServer::m_GetDBusName(std::string name)
{
    if (std::string busName; m_EnterServer(name.c_str(), &busName)) {
        return busName;
    }
    name += kSuffix;
    TCServerHelper::FormatDBusName(name);
    return name;
}

bool TCServer::m_IsConnected() const
{
    GDBusConnection* const connection = m_Connection;
    return connection != nullptr && g_dbus_connection_is_closed(connection) == 0;
}

bool TCServer::IsServiceAvailable(const char* serviceName)
{
    if (serviceName == nullptr) {
        VELMORA_LOG_NULL("serviceName");
        return false;
    }
    if (!m_IsConnected()) {
        VELMORA_LOGE("dbus connection is not open");
        return false;
    }
    std::string name = std::string(serviceName) + kSuffix;
    TCServerHelper::FormatDBusName(name);
    if (name.size() > kMaxName) { // no bus name; the bus drops who sends what is too long for it
        VELMORA_LOGE("cannot ask for a service: the name is not legal on D-Bus");
        return false;
    }
    GError* raw = nullptr;
    const VariantPtr answer(g_dbus_connection_call_sync(
        m_Connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &raw));
    const ErrorPtr error(raw);
    if (error) {
        VELMORA_LOGE("sync call fail (%s, %d)", error->message, error->code);
    }
    if (!answer) {
        return false;
    }
    gboolean owned = FALSE;
    g_variant_get(answer.get(), "(b)", &owned);
    return owned != 0;
}

bool TCServer::CreateDBusProxy()
{
    return CreateDBusServer();
}

bool TCServer::CreateDBusServer()
{
    const OperationLock lock(*this);
    if (!lock) {
        return false;
    }
    VELMORA_LOGI("m_CreateDBus type: %d", static_cast<int>(m_ServerType));
    if (m_FlagOpen) {
        return true;
    }
    if (m_Connection != nullptr) { // left by a create that failed
        m_AwaitSends();
        m_ReleaseBus();
    }
    ConnectionPtr connection = ConnectToBus();
    if (!connection) {
        return false;
    }
    VELMORA_LOGI("Get dbus connection success : %p", static_cast<void*>(connection.get()));
    const Life life = LiveServers::BeginCreate(this);
    try {
        m_FlagOpen = m_Open(connection.get(), life);
    } catch (...) {
        m_Connection = connection.release();
        LiveServers::EndCreate(life, false);
        throw;
    }
    // Only now: a send that finds the connection may read the names.
    m_Connection = connection.release();
    if (LiveServers::EndCreate(life, m_FlagOpen)) {
        m_SendStartSignal();
    }
    return m_FlagOpen;
}

// All that a create does on its connection. What it leaves on failure is the close's to release.
bool TCServer::m_Open(GDBusConnection* connection, const Life& life)
{
    switch (m_ServerType) {
    case SERVER_TYPE_PROXY:
        return true;
    case SERVER_TYPE_SERVICE:
    case SERVER_TYPE_ACTIVITY:
        if (!m_FormBusName() || !m_OwnNameAndExport(connection, life)) {
            return false;
        }
        // Another create may have taken the service name since it was first looked at.
        std::string owner;
        return m_CheckNames(owner, true);
    }
    const std::lock_guard<std::mutex> lock(RegistryMutex());
    m_CreatedDbusServers[m_ServiceName] = this;
    return true;
}

// The name of the open service of the process, or nothing. The caller holds the registry's lock.
std::string TCServer::m_FindService()
{
    for (const auto& [name, entry] : m_CreatedDbusServers) {
        const HookScope server = m_EnterEntry(name, entry);
        if (server && server->m_ServerType == SERVER_TYPE_SERVICE) {
            return name;
        }
    }
    return "";
}

// Whether the server may open beside the others, and then enters it if told so.
bool TCServer::m_CheckNames(std::string& owner, bool enter)
{
    bool used = false;
    bool free = false;
    {
        const std::lock_guard<std::mutex> lock(RegistryMutex());
        used = m_CreatedDbusServers.count(m_ServiceName) > 0;
        owner = m_FindService();
        free = !used && (owner.empty() || m_ServerType != SERVER_TYPE_SERVICE);
        if (free && enter) {
            m_CreatedDbusServers[m_ServiceName] = this;
        }
    }
    if (used) {
        VELMORA_LOGE("%s name has been used!", m_ServiceName.c_str());
    } else if (!free) {
        VELMORA_LOGE("only one eflapplication/daemon service can be created in one process!");
    }
    return free;
}

bool TCServer::m_FormBusName()
{
    std::string owner;
    if (!m_CheckNames(owner, false)) {
        return false;
    }
    if (m_ServerType == SERVER_TYPE_ACTIVITY) {
        if (owner.empty()) {
            TCServerHelper::GetProcessName(owner);
            VELMORA_LOGW("no eflapplication/daemon found when creating ug activity, use process "
                         "name : %s",
                         owner.c_str());
        }
        m_DBusName = owner + "." + m_ServiceName + kSuffix;
    }
    VELMORA_LOGD("request a dbus name : %s", m_DBusName.c_str());
    if (TCServerHelper::FormatDBusName(m_DBusName)) {
        VELMORA_LOGW("original name has illegal character, format to %s", m_DBusName.c_str());
    }
    return true;
}

bool TCServer::m_OwnNameAndExport(GDBusConnection* connection, const Life& life)
{
    if (IsInterfaceName(m_DBusName)) { // which it becomes, too
        char xml[2048];
        // NOLINTNEXTLINE(clang-diagnostic-format-nonliteral): the one literal there is
        std::snprintf(xml, sizeof xml, kInterfaceXml, m_DBusName.c_str());
        m_NodeInfo = g_dbus_node_info_new_for_xml(xml, nullptr);
        m_ObjectPath = TCServerHelper::GetObjectPath(m_DBusName);
        // Nothing slow in between, and no log line: the whole process's input waits.
        const HeldInput held;
        m_OwnName(connection, life);
        if (m_NodeInfo != nullptr) {
            m_ExportObject(connection, life);
        }
    }
    if (m_OwnerId == 0) {
        VELMORA_LOGE("Request bus name fail!");
        return false;
    }
    VELMORA_LOGI("RequestName(%s) success : %u", m_DBusName.c_str(), m_OwnerId);
    if (m_NodeInfo == nullptr) {
        VELMORA_LOGE("parse interface xml fail!");
        return false;
    }
    VELMORA_LOGI("Register Obj Path(%s)", m_ObjectPath.c_str());
    VELMORA_LOGI("Get register id : %u", m_RegistrationId);
    if (m_RegistrationId == 0) {
        VELMORA_LOGE("Register Obj Path Fail!");
        return false;
    }
    return true;
}

void TCServer::m_OwnName(GDBusConnection* connection, const Life& life)
{
    constexpr auto flags = static_cast<GBusNameOwnerFlags>(
        G_BUS_NAME_OWNER_FLAGS_ALLOW_REPLACEMENT | G_BUS_NAME_OWNER_FLAGS_REPLACE);
    BusHandle* const handle = new NameHandle(life); // NameHandle::Free frees it
    m_OwnerId = g_bus_own_name_on_connection(connection, m_DBusName.c_str(), flags,
                                             &Callbacks::m_OnNameAcquired, &Callbacks::m_OnNameLost,
                                             handle, &NameHandle::Free);
}

void TCServer::m_ExportObject(GDBusConnection* connection, const Life& life)
{
    std::unique_ptr<BusHandle> handle(new ObjectHandle(life, m_ObjectPath));
    m_RegistrationId = g_dbus_connection_register_object(
        connection, m_ObjectPath.c_str(), m_NodeInfo->interfaces[0], &Callbacks::callTable,
        handle.get(), &FreeHandle, nullptr);
    if (m_RegistrationId != 0) {
        static_cast<void>(handle.release()); // FreeHandle frees it
    }
}

void TCServer::CloseDBusProxy()
{
    CloseDBusServer();
}

void TCServer::CloseDBusServer()
{
    VELMORA_LOGD("close %s begin", m_ServiceName.c_str());
    const MutexGuard guard(m_ServerMutex);
    if (m_Connection == nullptr) {
        VELMORA_LOGD("%s has closed.", m_ServiceName.c_str());
        return;
    }
    VELMORA_LOGD("waiting all send message/signal finished %ud", m_SendingCount.load());
    m_AwaitSends();
    VELMORA_LOGD("all send message/signal finished");
    m_ReleaseBus();
    VELMORA_LOGD("close connection and all close motion finished");
    if (m_ServerType != SERVER_TYPE_PROXY) {
        const std::lock_guard<std::mutex> lock(RegistryMutex());
        const auto found = m_CreatedDbusServers.find(m_ServiceName);
        if (found != m_CreatedDbusServers.end() && found->second == this) {
            m_CreatedDbusServers.erase(found);
        }
    }
    m_FlagOpen = false;
}

void TCServer::m_ReleaseBus()
{
    const ContextPtr context = LiveServers::TakeContext(this);
    const ConnectionPtr held(m_Connection.exchange(nullptr));
    GDBusConnection* const connection = held.get();
    std::vector<unsigned int> subscriptions;
    m_SignalManager.Destroy(subscriptions);
    for (const unsigned int id : subscriptions) {
        g_dbus_connection_signal_unsubscribe(connection, id);
    }
    if (m_OwnerId != 0) {
        UnownName(connection, std::exchange(m_OwnerId, 0));
    }
    if (m_RegistrationId != 0) {
        g_dbus_connection_unregister_object(connection, std::exchange(m_RegistrationId, 0));
        HoldUntilDispatched(connection, context.get());
    }
    if (m_NodeInfo != nullptr) {
        g_dbus_node_info_unref(std::exchange(m_NodeInfo, nullptr));
    }
    // From here on the last answer waits until it has left. What was sent and answered before has
    // only been queued by GDBus.
    LiveServers::Close(this);
    FlushWithinLimit(connection);
}

bool TCServer::AwaitHooks()
{
    OperationLock lock(*this);
    if (!lock) {
        return false;
    }
    if (m_Connection != nullptr) {
        lock.Unlock();
        VELMORA_LOGE("%s is not closed", m_ServiceName.c_str());
        return false;
    }
    const Life life = LiveServers::End(this);
    lock.Unlock();
    LiveServers::AwaitEnd(life);
    return true;
}

} // namespace Velmora
