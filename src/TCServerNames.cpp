// What the bus tells of a server's name.
#include "BusHandle.h"
#include "TCServerCallbacks.h"
#include "TCServerGate.h"

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

namespace {

constexpr unsigned int kRetryAfter = 20; // milliseconds

} // namespace

// While a create is under way, its end sends the signal. The loop waits for nobody: where another
// thread holds the server, for a subscription say, the signal is sent a little later.
void TCServer::Callbacks::NoteName(const HookScope& server)
{
    if (!server || !LiveServers::NoteName(server.GetLife()) || server->m_SendStartSignal()) {
        return;
    }
    const auto retry = [](void* handle) -> gboolean {
        const HookScope later(BusHandle::LifeOf(handle));
        return later && !later->m_SendStartSignal() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
    };
    const ContextPtr context(g_main_context_ref_thread_default());
    GSource* const source = g_timeout_source_new(kRetryAfter);
    g_source_set_callback(source, retry, new BusHandle(server.GetLife()), &FreeHandle);
    g_source_attach(source, context.get());
    g_source_unref(source);
}

// Returns false if another thread holds the server, and may let go of it for the signal.
bool TCServer::m_SendStartSignal()
{
    if (m_Connection == nullptr || m_SendsAwaited) { // being closed
        return true;
    }
    const SendGate gate(*this);
    if (gate) {
        TCMessage message;
        message.m_Json["service_name"] = m_ServiceName;
        SendSignal("service_start_default", &message);
    }
    return static_cast<bool>(gate);
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
