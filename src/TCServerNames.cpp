// What the bus tells of a server's name.
#include "BusHandle.h"
#include "TCServerCallbacks.h"

namespace Velmora {

using namespace Internal;

void TCServer::m_OnNameAcquired(GDBusConnection* /*connection*/, const char* /*name*/,
                                void* userData)
{
    VELMORA_LOGI("");
    if (userData == nullptr) {
        VELMORA_LOG_NULL("pThis");
        return;
    }
    Callbacks::NoteName(HookScope(static_cast<TCServer*>(userData)));
}

void TCServer::Callbacks::m_OnNameAcquired(GDBusConnection* /*connection*/, const char* /*name*/,
                                           void* handle)
{
    VELMORA_LOGI("");
    NoteName(HookScope(BusHandle::LifeOf(handle)));
}

// While a create is under way, its end sends the signal.
void TCServer::Callbacks::NoteName(const HookScope& server)
{
    if (server && LiveServers::NoteName(server.GetLife())) {
        server->m_SendStartSignal();
    }
}

void TCServer::m_SendStartSignal()
{
    TCMessage message;
    message.m_Json["service_name"] = m_ServiceName;
    SendSignal("service_start_default", &message);
}

void TCServer::m_OnNameLost(GDBusConnection* /*connection*/, const char* /*name*/, void* userData)
{
    VELMORA_LOGI("");
    if (userData == nullptr) {
        VELMORA_LOG_NULL("pThis");
    }
}

void TCServer::Callbacks::m_OnNameLost(GDBusConnection* /*connection*/, const char* /*name*/,
                                       void* /*handle*/)
{
    VELMORA_LOGI("");
}

} // namespace Velmora
