#include "OpenCall.h"

#include <utility>

#include "BusBody.h"
#include "BusConnection.h"

namespace Velmora::Internal {

Invocation::~Invocation()
{
    if (m_Invocation != nullptr) {
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

std::shared_ptr<OpenCall> OpenCall::Begin(const Life& life, GDBusMethodInvocation* invocation)
{
    Invocation unopened(invocation);
    std::shared_ptr<OpenCall> call(new OpenCall(life, unopened));
    LiveServers::BeginCall(life, call);
    return call;
}

OpenCall::OpenCall(Life life, Invocation& invocation)
    : m_Life(std::move(life)), m_Connection(static_cast<GDBusConnection*>(g_object_ref(
                                   g_dbus_method_invocation_get_connection(invocation.Get())))),
      m_Invocation(invocation.Release())
{}

void OpenCall::Answered()
{
    if (LiveServers::EndCall(m_Life, this)) {
        FlushWithinLimit(m_Connection.get());
    }
}

void OpenCall::Fail()
{
    if (GDBusMethodInvocation* const unhandled = Take(); unhandled != nullptr) {
        {
            const Invocation failed(unhandled);
        }
        Answered();
    }
}

} // namespace Velmora::Internal
