// SPDX-License-Identifier: MIT
// The use of a server's connection by an object that may outlast the server.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include <gio/gio.h>

#include "TCServer.h"

namespace Velmora::Internal {

struct ServerLife;

// The connection of an open server, held until the server is closed or destroyed or this object
// ends, so that it does not keep the process on the bus.
class BusUse
{
public:
    using Function = std::function<void(GDBusConnection* connection)>;

    // Null, with an error line, if the server is not open. `onEnd` is called once on the library's
    // thread when the server is closed or destroyed or its connection is lost, but not if this
    // object is destroyed before.
    static std::unique_ptr<BusUse> Begin(TCServer& server, Function onEnd);
    ~BusUse();
    BusUse(const BusUse&) = delete;
    BusUse& operator=(const BusUse&) = delete;

    // Runs the function with the connection on the library's thread, in the order of these calls.
    // Drops it if the use has ended.
    void Run(Function function) const;
    // The same, and waits until it has run, so that what it sends leaves before what the caller
    // sends next.
    void RunAndWait(const Function& function) const;

    // The server is closed or destroyed.
    static void EndAllOf(const ServerLife& server);

    struct State;

private:
    explicit BusUse(std::shared_ptr<State> state) : m_State(std::move(state)) {}

    const std::shared_ptr<State> m_State;
};

} // namespace Velmora::Internal
