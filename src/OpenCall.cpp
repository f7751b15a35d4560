// SPDX-License-Identifier: MIT
#include "OpenCall.h"

#include <utility>

#include "BusBody.h"
#include "BusConnection.h"
#include "Trace.h"

namespace Velmora::Internal {

namespace {

// The sender is null on a connection without a bus.
const char* OrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

} // namespace

Invocation::~Invocation()
{
    if (m_Invocation != nullptr) {
        SENNET_TRACE(answer, static_cast<const char*>(""), 1); // the error reply
        Answer(BuildErrorReply());
    }
}

void Invocation::Answer(GVariant* body)
{
    g_dbus_method_invocation_return_value(Release(), body);
}

GDBusMethodInvocation* Invocation::Release()
{
    return std::exchange(m_Invocation, nullptr);
}

std::shared_ptr<OpenCall> OpenCall::Begin(const ServerLife& life, GDBusMethodInvocation* invocation)
{
    Invocation unopened(invocation);
    std::shared_ptr<OpenCall> call(new OpenCall(life, unopened));
    ServerLives::BeginCall(life, call);
    call->m_Invocation = unopened.Release();
    return call;
}

OpenCall::OpenCall(ServerLife life, const Invocation& invocation)
    : m_Life(std::move(life)), m_Connection(static_cast<GDBusConnection*>(g_object_ref(
                                   g_dbus_method_invocation_get_connection(invocation.Get())))),
      m_Sender(OrEmpty(g_dbus_method_invocation_get_sender(invocation.Get()))),
      m_WantsAnswer(
          (g_dbus_message_get_flags(g_dbus_method_invocation_get_message(invocation.Get())) &
           G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0)
{}

OpenCall::~OpenCall()
{
    if (Fail()) {
        Answered();
    }
}

void OpenCall::Answered()
{
    if (ServerLives::NoteAnswer(m_Life)) {
        FlushWithinLimit(m_Connection.get());
    }
    ServerLives::EndCall(m_Life, this);
}

bool OpenCall::Fail()
{
    const Invocation failed(Take());
    return failed.Get() != nullptr;
}

void OpenCall::FailAll(const std::vector<std::shared_ptr<OpenCall>>& calls)
{
    const OpenCall* last = nullptr;
    for (const auto& call : calls) {
        if (call->Fail()) {
            ServerLives::NoteAnswer(call->m_Life);
            ServerLives::EndCall(call->m_Life, call.get());
            last = call.get();
        }
    }
    if (last != nullptr) {
        FlushWithinLimit(last->m_Connection.get());
    }
}

} // namespace Velmora::Internal
