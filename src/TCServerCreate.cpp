// SPDX-License-Identifier: MIT
// Opens a server: the connection, the name, the object, the entry in the registry.
#include <utility>

#include "BusConnection.h"
#include "BusHandle.h"
#include "BusInputHold.h"
#include "BusInterface.h"
#include "BusNames.h"
#include "SendGate.h"
#include "SendOwned.h"
#include "ServerRegistry.h"

namespace Velmora {

using namespace Internal;

// What a create does on its connection. The close releases what a failure leaves.
class TCServer::Private::Opening
{
public:
    Opening(TCServer& server, GDBusConnection* connection, ServerLife life)
        : m_Server(server), m_Connection(connection), m_Life(std::move(life))
    {}

    bool Open()
    {
        switch (m_Server.m_ServerType) {
        case SERVER_TYPE_PROXY:
            return true;
        case SERVER_TYPE_SERVICE:
        case SERVER_TYPE_ACTIVITY:
            // Another create may take the service name between the check of the first step and the
            // last one.
            return FormBusName() && OwnNameAndExport() && ServerRegistry::Add(m_Server);
        }
        ServerRegistry::AddUnchecked(
            m_Server); // a value outside the enumeration: found by name only
        return true;
    }

private:
    bool FormBusName();
    bool OwnNameAndExport();
    void OwnName();
    void ExportObject();

    TCServer& m_Server;
    GDBusConnection* const m_Connection;
    const ServerLife m_Life;
};

bool TCServer::Private::Opening::FormBusName()
{
    std::string owner;
    if (!ServerRegistry::Check(m_Server, owner)) {
        return false;
    }
    std::string& name = m_Server.m_DBusName;
    if (m_Server.m_ServerType == SERVER_TYPE_ACTIVITY) {
        if (owner.empty()) {
            TCServerHelper::GetProcessName(owner);
            VELMORA_LOGW("no eflapplication/daemon found when creating ug activity, use process "
                         "name : %s",
                         owner.c_str());
        }
        name = AppendSuffix(owner + "." + m_Server.m_ServiceName);
    }
    VELMORA_LOGD("request a dbus name : %s", name.c_str());
    if (MakeLegal(name)) {
        VELMORA_LOGW("original name has illegal character, format to %s", name.c_str());
    }
    return true;
}

bool TCServer::Private::Opening::OwnNameAndExport()
{
    const std::string& name = m_Server.m_DBusName;
    if (IsInterfaceName(name)) {
        m_Server.m_NodeInfo = g_dbus_node_info_new_for_xml(InterfaceXml(name).c_str(), nullptr);
        m_Server.m_ObjectPath = TCServerHelper::GetObjectPath(name);
        // Nothing slow in between, and no log line: the input of the whole process waits.
        const BusInputHold hold;
        OwnName();
        if (m_Server.m_NodeInfo != nullptr) {
            ExportObject();
        }
    }
    if (m_Server.m_OwnerId == 0) {
        VELMORA_LOGE("Request bus name fail!");
        return false;
    }
    VELMORA_LOGI("RequestName(%s) success : %u", name.c_str(), m_Server.m_OwnerId);
    if (m_Server.m_NodeInfo == nullptr) {
        VELMORA_LOGE("parse interface xml fail!");
        return false;
    }
    VELMORA_LOGI("Register Obj Path(%s)", m_Server.m_ObjectPath.c_str());
    VELMORA_LOGI("Get register id : %u", m_Server.m_RegistrationId);
    if (m_Server.m_RegistrationId == 0) {
        VELMORA_LOGE("Register Obj Path Fail!");
        return false;
    }
    return true;
}

void TCServer::Private::Opening::OwnName()
{
    constexpr auto flags = static_cast<GBusNameOwnerFlags>(
        G_BUS_NAME_OWNER_FLAGS_ALLOW_REPLACEMENT | G_BUS_NAME_OWNER_FLAGS_REPLACE);
    auto handle = BusHandle::Make<NameHandle>(m_Life); // NameHandle::Free frees it
    m_Server.m_OwnerId = g_bus_own_name_on_connection(
        m_Connection, m_Server.m_DBusName.c_str(), flags, &Callbacks::m_OnNameAcquired,
        &Callbacks::m_OnNameLost, handle.release(), &NameHandle::Free);
}

void TCServer::Private::Opening::ExportObject()
{
    HandOver(BusHandle::Make<ObjectHandle>(m_Life, m_Server.m_ObjectPath),
             [this](BusHandle* handle) { // FreeHandle frees it
                 m_Server.m_RegistrationId = g_dbus_connection_register_object(
                     m_Connection, m_Server.m_ObjectPath.c_str(),
                     m_Server.m_NodeInfo->interfaces[0], &Callbacks::callTable, handle, &FreeHandle,
                     nullptr);
                 return m_Server.m_RegistrationId != 0;
             });
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
        Private::AwaitSends(*this);
        Private::ReleaseBus(*this);
    }
    ConnectionPtr connection = ConnectToBus();
    if (!connection) {
        return false;
    }
    VELMORA_LOGI("Get dbus connection success : %p", static_cast<void*>(connection.get()));
    const ServerLife life = ServerLives::BeginCreate(this);
    try {
        m_FlagOpen = Private::Opening(*this, connection.get(), life).Open();
    } catch (...) {
        m_Connection = connection.release();
        ServerLives::EndCreate(life, false);
        throw;
    }
    // Only now: a send that finds the connection may read the names.
    m_Connection = connection.release();
    if (ServerLives::EndCreate(life, m_FlagOpen)) {
        Private::SendStartSignal(*this);
    }
    return m_FlagOpen;
}

} // namespace Velmora
