// SPDX-License-Identifier: MIT
// The calls of the process that have not ended: by the number under which the answer comes, and by
// the end of their time.
#pragma once

#include <memory>

#include <gio/gio.h>

#include "GLibPtr.h"
#include "ServerLife.h"
#include "extra/PendingCall.h"

namespace Velmora::Internal {

class CallTable
{
public:
    // Before the first call. Returns false, with an error line, if there is no thread for the time
    // limits.
    static bool MakeReady();

    // Sends the message of a call. An answer may come before this returns. The send gate of the
    // server is open.
    static void Send(const std::shared_ptr<PendingCall>& call, const ServerLife& server,
                     GDBusConnection* connection, GDBusMessage* message, gint64 deadline);
    // Enters a call that takes another way.
    static void Add(const std::shared_ptr<PendingCall>& call, const ServerLife& server,
                    gint64 deadline);

    // For the end of a call, which may not have been entered.
    static void Remove(PendingCall& call);

    // For the filter, on the worker thread: ends the call that the message answers. Returns whether
    // there was one.
    static bool TakesMessage(GDBusConnection* connection, GDBusMessage* message);

    // The server is closed or destroyed.
    static void EndCallsOf(const ServerLife& server);
};

} // namespace Velmora::Internal
