// The tool's own end on the bus.
#pragma once

#include <string>

#include "Bus.h"
#include "TCServer.h"

namespace Ctl {

constexpr char kToolName[] = "sennetctl"; // what receivers see as sender

constexpr int kDefaultTimeout = 25000; // milliseconds

class Endpoint : public Velmora::TCServer
{
public:
    // Opens it; a failure is thrown.
    Endpoint(const std::string& name, TCServerType type);
    ~Endpoint() override;

    GDBusConnection* Bus() const { return m_Bus.get(); }

    // Sends a message and waits for the answer; one that does not come, and one that says that the
    // call has failed, are thrown.
    void Ask(const std::string& service, const Velmora::TCMessage& message, int timeout,
             Velmora::TCMessage& answer);

private:
    ConnectionPtr m_Bus;
};

[[noreturn]] void ThrowTimeout(const std::string& service, int timeout);

} // namespace Ctl
