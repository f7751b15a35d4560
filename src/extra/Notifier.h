// SPDX-License-Identifier: MIT
// Sends datagrams to the service manager, as sd_notify(3) describes them.
#pragma once

#include <string>

namespace Velmora::Internal {

class Notifier
{
public:
    // Reads the environment of this process.
    Notifier();

    // Sends assignments such as "READY=1", without waiting. What the socket does not take is lost.
    void Send(const std::string& state) const;

    // Microseconds within which the service manager wants to hear "WATCHDOG=1"; 0 if it does not.
    long long WatchdogInterval() const { return m_Interval; }

private:
    std::string m_Socket; // a path, or an abstract name after a "@"; empty: nobody listens
    long long m_Interval = 0;
};

} // namespace Velmora::Internal
