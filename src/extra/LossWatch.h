// SPDX-License-Identifier: MIT
// Tells when a connection to the bus is lost.
//
// The signal "closed" of GDBus does not: it comes on the context on which the process has first
// connected, which may never run. A call that the bus never answers does, because GDBus ends it
// with the connection, on the context of its caller. So this sends a call to the bus, and drops the
// answer before GDBus sees it.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include <gio/gio.h>

namespace Velmora::Internal {

class LossWatch
{
public:
    struct State;

    // The watch of a connection, shared by all who want to know; null, with an error line, if the
    // library's thread cannot be had. It holds the connection for as long as somebody holds it.
    static std::shared_ptr<LossWatch> Of(GDBusConnection* connection);

    explicit LossWatch(std::shared_ptr<State> state) : m_State(std::move(state)) {}
    LossWatch(const LossWatch&) = delete;
    LossWatch& operator=(const LossWatch&) = delete;
    ~LossWatch();

    // Calls back once on the library's thread when the connection is lost, also if it was lost
    // before. The key tells the callbacks apart; a second one with the same key is dropped. What
    // has not been called by then is destroyed with the watch.
    void OnLost(const void* key, std::function<void()> callback);
    void Forget(const void* key);

    // For the filter, on the worker thread: whether the message is the answer to be dropped.
    static bool TakesAnswer(GDBusConnection* connection, GDBusMessage* message);

private:
    const std::shared_ptr<State> m_State;
};

} // namespace Velmora::Internal
