#include "Endpoint.h"

#include "Failure.h"
#include "Log.h"
#include "Text.h"

namespace Ctl {

using Velmora::TCMessage;

namespace {

bool SaysFail(const TCMessage& answer)
{
    return answer.m_Json.isObject() && answer.m_Json["dbus_result"] == "fail";
}

} // namespace

Endpoint::Endpoint(const std::string& name, TCServerType type)
    : TCServer(name, type), m_Bus(ConnectToBus())
{
    if (!CreateDBusServer()) {
        CloseDBusServer();
        throw Failure(kFailed, "cannot open an endpoint on the bus: " + LastError());
    }
}

Endpoint::~Endpoint()
{
    CloseDBusServer();
    AwaitHooks();
}

void Endpoint::Ask(const std::string& service, const TCMessage& message, int timeout,
                   TCMessage& answer)
{
    const gint64 start = g_get_monotonic_time();
    if (SendMessage(service.c_str(), &message, true, &answer, timeout)) {
        return;
    }
    if (SaysFail(answer)) {
        throw Failure(kFailed, service + " answers with a failure: " +
                                   PrintableName(CompactJson(answer.m_Json)));
    }
    if (g_get_monotonic_time() - start >= gint64{timeout} * 1000) {
        ThrowTimeout(service, timeout);
    }
    const std::string reason = LastError();
    throw Failure(kFailed, reason.find("Error.ServiceUnknown") != std::string::npos
                               ? "no service " + service + " on the bus"
                               : service + ": " + reason);
}

void ThrowTimeout(const std::string& service, int timeout)
{
    throw Failure(kTimedOut,
                  "nothing from " + service + " within " + std::to_string(timeout) + " ms");
}

} // namespace Ctl
