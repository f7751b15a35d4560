// SPDX-License-Identifier: MIT
// Closes a server, and waits for the end of its hooks.
#include <utility>
#include <vector>

#include "BusConnection.h"
#include "LocalAnswer.h"
#include "Locks.h"
#include "SendGate.h"
#include "ServerRegistry.h"
#include "extra/BusUse.h"
#include "extra/CallTable.h"

namespace Velmora {

using namespace Internal;

namespace {

// When a connection is lost, GDBus ends its name ownerships on the dispatch thread, without a lock
// against g_bus_unown_name on another thread. So a name on a lost connection is released on the
// dispatch thread.
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

void TCServer::CloseDBusProxy()
{
    CloseDBusServer();
}

void TCServer::CloseDBusServer()
{
    VELMORA_LOGD("close %s begin", m_ServiceName.c_str());
    const Lock lock(m_ServerMutex);
    if (m_Connection == nullptr) {
        VELMORA_LOGD("%s has closed.", m_ServiceName.c_str());
        return;
    }
    VELMORA_LOGD("waiting all send message/signal finished %ud", m_SendingCount.load());
    const ServerLife life = ServerLives::Of(this);
    FailLocalAnswers(life); // a send of this server to itself may wait for one
    Private::AwaitSends(*this);
    VELMORA_LOGD("all send message/signal finished");
    CallTable::EndCallsOf(life);
    BusUse::EndAllOf(life);
    Private::ReleaseBus(*this);
    VELMORA_LOGD("close connection and all close motion finished");
    if (m_ServerType != SERVER_TYPE_PROXY) {
        ServerRegistry::Remove(*this);
    }
    m_FlagOpen = false;
}

void TCServer::Private::ReleaseBus(TCServer& server)
{
    const ContextPtr context = ServerLives::TakeContext(&server);
    const ConnectionPtr held(server.m_Connection.exchange(nullptr));
    GDBusConnection* const connection = held.get();
    std::vector<unsigned int> subscriptions;
    server.m_SignalManager.Destroy(subscriptions);
    for (const unsigned int id : subscriptions) {
        g_dbus_connection_signal_unsubscribe(connection, id);
    }
    if (server.m_OwnerId != 0) {
        UnownName(connection, std::exchange(server.m_OwnerId, 0));
    }
    if (server.m_RegistrationId != 0) {
        g_dbus_connection_unregister_object(connection, std::exchange(server.m_RegistrationId, 0));
        HoldUntilDispatched(connection, context.get());
    }
    if (server.m_NodeInfo != nullptr) {
        g_dbus_node_info_unref(std::exchange(server.m_NodeInfo, nullptr));
    }
    // From now on the last reply flushes the connection. What was sent and answered before is only
    // queued by GDBus.
    ServerLives::Close(&server);
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
    const ServerLife life = ServerLives::End(this);
    lock.Unlock();
    ServerLives::AwaitEnd(life);
    return true;
}

} // namespace Velmora
