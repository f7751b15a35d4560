// SPDX-License-Identifier: MIT
// The bus grants or takes a server's name, and the signal "service_start_default".
#include "BusHandle.h"
#include "SendGate.h"

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
    Private::Callbacks::NoteName(ServerPin(static_cast<TCServer*>(userData)));
}

void TCServer::Private::Callbacks::m_OnNameAcquired(GDBusConnection* /*connection*/,
                                                    const char* /*name*/, void* handle)
{
    VELMORA_LOGI("");
    NoteName(ServerPin(BusHandle::LifeOf(handle)));
}

namespace {

constexpr unsigned int kRetryAfter = 20; // milliseconds

} // namespace

// During a create, the end of the create sends the signal. The loop must not wait: if another
// thread holds the server, for a subscription for example, the signal is sent a little later.
void TCServer::Private::Callbacks::NoteName(const ServerPin& server)
{
    if (!server || !ServerLives::NoteName(server.Life()) || SendStartSignal(*server)) {
        return;
    }
    const auto retry = [](void* handle) -> gboolean {
        const ServerPin later(BusHandle::LifeOf(handle));
        return later && !SendStartSignal(*later) ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
    };
    const ContextPtr context(g_main_context_ref_thread_default());
    GSource* const source = g_timeout_source_new(kRetryAfter);
    g_source_set_callback(source, retry, BusHandle::Make<BusHandle>(server.Life()).release(),
                          &FreeHandle);
    g_source_attach(source, context.get());
    g_source_unref(source);
}

bool TCServer::Private::SendStartSignal(TCServer& server)
{
    if (server.m_Connection == nullptr || server.m_SendsAwaited) { // being closed
        return true;
    }
    const SendGate gate(server);
    if (gate) {
        TCMessage message;
        message.m_Json["service_name"] = server.m_ServiceName;
        server.SendSignal("service_start_default", &message);
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

void TCServer::Private::Callbacks::m_OnNameLost(GDBusConnection* /*connection*/,
                                                const char* /*name*/, void* handle)
{
    VELMORA_LOGI("");
    if (const ServerPin server(BusHandle::LifeOf(handle)); server) {
        ServerLives::NoteNameLost(server.Life());
    }
}

} // namespace Velmora
