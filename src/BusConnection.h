// SPDX-License-Identifier: MIT
// The connection to the system bus that the servers of a process share: opened, flushed, and
// watched for its loss.
#pragma once

#include <gio/gio.h>

#include "GLibPtr.h"

namespace Velmora::Internal {

// Returns an open connection that is ready for servers, or null, with error lines, if the bus
// cannot be reached. On a bus that has stopped this takes at most 60 seconds.
ConnectionPtr ConnectToBus();

// Waits until everything that was sent has left the process, for 5 seconds at most. Returns false,
// with an error line, if something is left unsent.
bool FlushWithinLimit(GDBusConnection* connection);

// Keeps the connection until the context has dispatched what is queued on it now and the replies
// have left. GDBus itself answers the calls that arrived before their object was withdrawn.
void HoldUntilDispatched(GDBusConnection* connection, GMainContext* context);

} // namespace Velmora::Internal
