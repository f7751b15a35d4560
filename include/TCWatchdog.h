// SPDX-License-Identifier: MIT
/// @file
/// Tells systemd that a service is ready, what it does, and that it lives.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "SennetApi.h"
#include "TCEventIO.h"
#include "TCServer.h"

namespace Velmora {

/// Readiness and watchdog of a service by the protocol of sd_notify(3), without libsystemd.
///
/// ~~~{.cpp}
/// TCScope<Sensor> sensor;
/// TCWatchdog watchdog(*sensor, {&*sensor, &*writer});
/// watchdog.SetStatus("measuring");
/// loop.Run();
/// ~~~
///
/// - READY=1 is sent once, when the bus has granted the server its name.
/// - WATCHDOG=1 is sent if the service manager asks for it (WATCHDOG_USEC), up to four times in
///   its interval, but only if every given queue and the dispatch loop have answered a ping since
///   the last time. So a service that hangs in one task is restarted, and a slow one is not, as
///   long as each answer comes within half the interval.
/// - STOPPING=1 is sent by the destructor: end the watchdog before the servers.
///
/// A queue that was destroyed, or that is not ready (before Init(), after Final()), is not watched;
/// one that is full and does not move hangs. The dispatch loop is the one of the context that is
/// thread-default where the object is made.
///
/// Without a service manager (no NOTIFY_SOCKET) all this does nothing. A socket that is full or
/// gone never blocks the service. Make and use the object on any thread.
class SENNET_API TCWatchdog
{
public:
    /// @param server must be open; otherwise, after an error line, READY=1 is not sent. With a
    ///               proxy, which has no name, as with the other constructor.
    /// @param queues to be pinged; null is ignored. They may end earlier.
    explicit TCWatchdog(TCServer& server, const std::vector<TCEventIO*>& queues = {});
    /// For a program without a server, which is ready when its queues and its loop have answered.
    explicit TCWatchdog(const std::vector<TCEventIO*>& queues);
    /// Sends STOPPING=1. Nothing is sent afterwards.
    ~TCWatchdog();
    TCWatchdog(const TCWatchdog&) = delete;
    TCWatchdog& operator=(const TCWatchdog&) = delete;

    /// Tells people what the service does.
    /// @param text one line of UTF-8
    /// @return false, with an error line, for any other text
    bool SetStatus(const std::string& text);

private:
    struct Impl;
    const std::unique_ptr<Impl> m_Impl;
};

} // namespace Velmora
