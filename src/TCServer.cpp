// SPDX-License-Identifier: MIT
#include "TCServer.h"

#include <utility>

#include "BusNames.h"
#include "GLibPtr.h"
#include "ServerRegistry.h"

namespace Velmora {

using namespace Internal;

std::map<std::string, TCServer*> TCServer::m_CreatedDbusServers;

const GDBusInterfaceVTable TCServer::m_gVTable = {
    &TCServer::m_DObjectHandler, nullptr, nullptr, {}};

TCServer::TCServer(std::string name, TCServerType type)
    : m_ServerType(type), m_ServiceName(std::move(name)), m_DBusName(AppendSuffix(m_ServiceName))
{
    m_SignalManager.Init();
    m_ServerMutex.Create();
    try {
        ServerLives::Add(this);
    } catch (...) {
        m_ServerMutex.Destroy();
        throw;
    }
}

TCServer::~TCServer()
{
    ServerLives::Remove(this);
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
    TCServer* const server = ServerRegistry::Find(source);
    if (server == nullptr) {
        VELMORA_LOGE("Couldn't find %s dbus server, subscribe fail", source);
    }
    return server;
}

std::string TCServer::m_GetDBusName(std::string name)
{
    if (std::string busName; ServerRegistry::Enter(name.c_str(), &busName)) {
        return busName;
    }
    name = AppendSuffix(name);
    MakeLegal(name);
    return name;
}

bool TCServer::Private::IsConnected(const TCServer& server)
{
    GDBusConnection* const connection = server.m_Connection;
    return connection != nullptr && g_dbus_connection_is_closed(connection) == 0;
}

ConnectionPtr TCServer::Private::OpenConnection(const TCServer& server)
{
    GDBusConnection* const connection = server.m_FlagOpen ? server.m_Connection.load() : nullptr;
    return ConnectionPtr(
        connection != nullptr ? static_cast<GDBusConnection*>(g_object_ref(connection)) : nullptr);
}

bool TCServer::IsServiceAvailable(const char* serviceName)
{
    if (serviceName == nullptr) {
        VELMORA_LOG_NULL("serviceName");
        return false;
    }
    if (!Private::IsConnected(*this)) {
        VELMORA_LOGE("dbus connection is not open");
        return false;
    }
    std::string name = AppendSuffix(serviceName);
    MakeLegal(name);
    if (name.size() > kMaxName) { // the bus drops the connection that sends a longer one
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

} // namespace Velmora
