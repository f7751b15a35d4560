// SPDX-License-Identifier: MIT
/// @file
/// Servers that come back with a bus that was restarted.
#pragma once

#include <functional>
#include <memory>

#include "SennetApi.h"
#include "TCServer.h"

namespace Velmora {

/// Opens servers again when the connection to the bus was lost.
///
/// ~~~{.cpp}
/// TCScope<Sensor> sensor;
/// TCReconnect reconnect;
/// reconnect.Add(*sensor);
/// reconnect.Subscribe(*sensor, "clock", "tick", &OnTick, nullptr);
/// reconnect.SetCallbacks([] { VELMORA_LOGW("the bus is lost"); },
///                        [] { VELMORA_LOGW("the bus is back"); });
/// ~~~
///
/// When the connection of one of the servers is lost, the guard closes them all, the last added one
/// first, with TCServer::CloseDBusServer() and AwaitHooks(). Then it creates them in the order in
/// which they were added and subscribes again. If a create fails, all are closed again, and the
/// next attempt follows after a pause: 0.1 s at first, then twice as long each time, up to 30 s,
/// with up to a quarter more at random, so that programs do not come back all at once.
///
/// Nothing that was in flight is sent again: the callers of this process get their failures, and
/// what others have sent is lost. Ask for the state again in the second callback. A TCNameWatch or
/// TCOwnerSignal of a server ends with the loss; make it again there.
///
/// Threads. Use a guard on one thread: the one that runs a main loop on the context that is
/// thread-default where the guard is made. Closes, creates and the callbacks run there too. A
/// create may block for up to 60 seconds on a bus that has stopped.
///
/// Lifetime. The servers must outlive the guard. A guard may be destroyed at any time, also in its
/// callbacks; nothing of it runs afterwards. A server that the program closes itself is opened
/// again after a loss; take it out first with Remove().
class SENNET_API TCReconnect
{
public:
    /// Takes the news.
    using Callback = std::function<void()>;

    TCReconnect();
    ~TCReconnect();
    TCReconnect(const TCReconnect&) = delete;
    TCReconnect& operator=(const TCReconnect&) = delete;

    /// Sets what is called after the servers were closed for a loss, and when all are open again
    /// and subscribed; both may be empty. The bus grants their names a little later, see
    /// AwaitName().
    void SetCallbacks(Callback lost, Callback back);

    /// Guards an open server, after those that were added before.
    /// @return false, with an error line, if it is not open or was added before
    bool Add(TCServer& server);
    /// Forgets a server and its subscriptions. Does not close it.
    void Remove(TCServer& server);

    /// Subscribes a guarded server and keeps the subscription over losses.
    /// @return what TCServer::SubscribeSignal() returns; false, with an error line, if the server
    ///         was not added. After false nothing is kept.
    bool Subscribe(TCServer& server, const char* from, const char* signal,
                   TCSignalCallback callback, void* userData);

private:
    struct Impl;
    const std::shared_ptr<Impl> m_Impl;
};

} // namespace Velmora
