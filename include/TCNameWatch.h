// SPDX-License-Identifier: MIT
/// @file
/// Who owns a name on the bus: reports of changes, and the wait for one's own name.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "SennetApi.h"
#include "TCServer.h"

namespace Velmora {

/// A change of the owner of a name.
struct TCNameChange
{
    std::string former; ///< the unique name of the last reported owner; empty if there was none
    std::string owner;  ///< the unique name of the owner, for example ":1.42"; empty if none
};

/// Reports when a service appears on the bus, leaves it or is replaced by another one.
///
/// ~~~{.cpp}
/// TCNameWatch watch(*client, "weather", [](const TCNameChange& change) {
///     std::puts(change.owner.empty() ? "no weather" : "weather is there");
/// });
/// ~~~
///
/// The first report tells the present state. Changes that follow each other faster than they are
/// reported may be reported as one. When the server is closed or destroyed, or the bus is lost, the
/// name is reported as left, and nothing more is reported.
class SENNET_API TCNameWatch
{
public:
    /// Takes a report.
    using Callback = std::function<void(const TCNameChange& change)>;

    /// Begins to watch.
    /// @param server its connection to the bus is used; if it is not open, an error line is written
    ///               and nothing is reported
    /// @param name the service name, or "owner.activity", as in TCServer::IsServiceAvailable();
    ///             also the server's own
    /// @param callback must not be empty
    /// @param queue the reports run on its thread; it may end earlier. Null: the thread-default
    ///              context of the caller. A queue that does not take a report gets the newest
    ///              state with the next one.
    TCNameWatch(TCServer& server, const char* name, Callback callback, TCEventIO* queue = nullptr);
    /// When this has returned, the callback does not run and was destroyed. Waits for a callback
    /// that runs on another thread, but not inside that callback.
    ~TCNameWatch();
    TCNameWatch(const TCNameWatch&) = delete;
    TCNameWatch& operator=(const TCNameWatch&) = delete;

private:
    struct Impl;
    const std::unique_ptr<Impl> m_Impl;
};

/// Waits until the bus has granted a server its own name, for example in main() before the loop
/// runs. On the thread that may run the context of TCServer::CreateDBusServer(), this iterates that
/// context, so hooks may run; while another thread runs it, this only waits.
/// @param server an open service or activity
/// @param milliseconds how long to wait at most
/// @param why receives the reason of a failure: who has the name, that the bus refuses it, that the
///            bus is lost or that the time is over; may be null
/// @return whether the server has its name; false comes with an error line
SENNET_API bool AwaitName(TCServer& server, int milliseconds, std::string* why = nullptr);

} // namespace Velmora
