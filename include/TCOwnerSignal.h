// SPDX-License-Identifier: MIT
/// @file
/// Signals of the true owner of a name.
#pragma once

#include <functional>
#include <memory>

#include "SennetApi.h"
#include "TCMessage.h"
#include "TCServer.h"

namespace Velmora {

/// A subscription to a signal that only the owner of a name can send.
///
/// TCServer::SubscribeSignal() takes the signal from whoever emits it under the service's
/// interface, which any program on the bus can do. This one checks the sender of each signal
/// against the owner that the bus tells, and follows the name to its next owner.
///
/// It ends when the server is closed or destroyed or the bus is lost.
class SENNET_API TCOwnerSignal
{
public:
    /// Takes a signal. TCCaller::Current() works inside.
    /// @param from the service name that the sender claims; null for a body of an unknown shape
    /// @param signalName the signal's name
    /// @param message what was sent
    using Callback =
        std::function<void(const char* from, const char* signalName, const TCMessage& message)>;

    /// Subscribes. A signal that the owner sends because of what this program sends afterwards is
    /// heard. The signals of one subscription come in their order.
    /// @param server its connection to the bus is used; must be open
    /// @param from the sender's service name, or "owner.activity"; must not be null
    /// @param signal the signal's name, a D-Bus member name
    /// @param callback must not be empty
    /// @param queue the callback runs on its thread; it may end earlier, and what it does not take
    ///              is lost. Null: the thread-default context of the caller.
    TCOwnerSignal(TCServer& server, const char* from, const char* signal, Callback callback,
                  TCEventIO* queue = nullptr);
    /// Unsubscribes. When this has returned, the callback does not run and was destroyed. Waits for
    /// a callback that runs on another thread, but not inside that callback.
    ~TCOwnerSignal();
    TCOwnerSignal(const TCOwnerSignal&) = delete;
    TCOwnerSignal& operator=(const TCOwnerSignal&) = delete;

    /// @return false, after an error line, if an argument was wrong or the server not open
    explicit operator bool() const { return m_Impl != nullptr; }

private:
    struct Impl;
    std::unique_ptr<Impl> m_Impl;
};

/// Subscribes like the constructor of TCOwnerSignal; the subscription lasts as long as the object.
/// @return null, after an error line, if an argument is wrong or the server is not open
SENNET_API std::unique_ptr<TCOwnerSignal> SubscribeOwnerSignal(TCServer& server, const char* from,
                                                               const char* signal,
                                                               TCOwnerSignal::Callback callback,
                                                               TCEventIO* queue = nullptr);

} // namespace Velmora
