// SPDX-License-Identifier: MIT
// The tool's own TCServer, with which it sends, subscribes and emits.
#pragma once

#include <string>

#include "BusDaemon.h"
#include "TCServer.h"

namespace Ctl {

constexpr char kToolName[] = "sennetctl"; // what receivers see as sender

class ToolServer : public Velmora::TCServer
{
public:
    // Creates the server on the bus; throws a Failure if that fails.
    ToolServer(const std::string& name, TCServerType type);
    ~ToolServer() override;

    GDBusConnection* Bus() const { return m_Bus.get(); }

    // Sends a message and waits for the answer. Throws a Failure if none arrives in time, if the
    // message cannot be sent, and if the answer reports that the call has failed.
    Velmora::TCMessage Call(const std::string& service, const Velmora::TCMessage& message,
                            int timeout);

    // Sends a message that needs no answer. Throws a Failure if it cannot be sent.
    void Post(const std::string& service, const Velmora::TCMessage& message);

private:
    ConnectionPtr m_Bus;
};

} // namespace Ctl
