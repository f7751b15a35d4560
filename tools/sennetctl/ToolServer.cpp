// SPDX-License-Identifier: MIT
#include "ToolServer.h"

#include "Failure.h"
#include "Json.h"
#include "Printable.h"
#include "TCCall.h"

namespace Ctl {

using Velmora::TCMessage;

using Kind = Velmora::TCCallResult::Kind;

namespace {

Failure CallFailure(const std::string& service, const Velmora::TCCallResult& result)
{
    if (result.kind == Kind::NoService) {
        return NoService(service);
    }
    const std::string name = result.errorName.empty() ? "" : result.errorName + ": ";
    return {kFailed, service + ": " + name + result.text};
}

} // namespace

ToolServer::ToolServer(const std::string& name, TCServerType type)
    : TCServer(name, type), m_Bus(ConnectToBus())
{
    if (!CreateDBusServer()) {
        CloseDBusServer();
        throw Failure(kFailed, "cannot open an endpoint on the bus; " + std::string(kSeeLog));
    }
}

ToolServer::~ToolServer()
{
    CloseDBusServer();
    AwaitHooks();
}

TCMessage ToolServer::Call(const std::string& service, const TCMessage& message, int timeout)
{
    const Velmora::TCCallResult result =
        Velmora::TCCall().Start(*this, service.c_str(), message, timeout).get();
    switch (result.kind) {
    case Kind::Replied:
        return result.reply;
    case Kind::Failed:
        throw Failure(kFailed, service + ": the answer reports a failure: " +
                                   PrintableName(CompactJson(result.reply.m_Json)));
    case Kind::NoAnswer:
        throw NoAnswer(service, timeout);
    default:
        throw CallFailure(service, result);
    }
}

void ToolServer::Post(const std::string& service, const TCMessage& message)
{
    if (!SendMessage(service.c_str(), &message, false, nullptr)) {
        // Refused in the same way, and nothing is sent.
        throw CallFailure(service,
                          Velmora::TCCall().Start(*this, service.c_str(), message, 0).get());
    }
}

} // namespace Ctl
