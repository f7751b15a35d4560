// SPDX-License-Identifier: MIT
#include "ToolServer.h"

#include "Failure.h"
#include "Json.h"
#include "LibraryErrors.h"
#include "Printable.h"

namespace Ctl {

using Velmora::TCMessage;

namespace {

bool ReportsFailure(const TCMessage& answer)
{
    return answer.m_Json.isObject() && answer.m_Json["dbus_result"] == "fail";
}

} // namespace

ToolServer::ToolServer(const std::string& name, TCServerType type)
    : TCServer(name, type), m_Bus(ConnectToBus())
{
    if (!CreateDBusServer()) {
        CloseDBusServer();
        throw Failure(kFailed, "cannot open an endpoint on the bus: " + LastLibraryError());
    }
}

ToolServer::~ToolServer()
{
    CloseDBusServer();
    AwaitHooks();
}

TCMessage ToolServer::Call(const std::string& service, const TCMessage& message, int timeout)
{
    TCMessage answer;
    const gint64 start = g_get_monotonic_time();
    if (SendMessage(service.c_str(), &message, true, &answer, timeout)) {
        return answer;
    }
    if (ReportsFailure(answer)) {
        throw Failure(kFailed, service + ": the answer reports a failure: " +
                                   PrintableName(CompactJson(answer.m_Json)));
    }
    if (g_get_monotonic_time() - start >= gint64{timeout} * 1000) {
        throw NoAnswer(service, timeout);
    }
    throw SendFailure(service);
}

} // namespace Ctl
