// The connection to the system bus that the servers of a process share, and its end.
#pragma once

#include <gio/gio.h>

#include "GLibPtr.h"

namespace Velmora::Internal {

// A connection that is open, made ready for servers. Null, with error lines, if there is none
// within 60 seconds, the longest that a bus which stands still can take.
ConnectionPtr ConnectToBus();

// Waits until all that was sent has left the process, for 5 seconds at most; then an error line
// says that something has not, and the result is false.
bool FlushWithinLimit(GDBusConnection* connection);

// Keeps the connection until the context has dispatched what is queued on it, and that has left:
// GDBus's own answers to calls that had arrived before their object was withdrawn.
void HoldUntilDispatched(GDBusConnection* connection, GMainContext* context);

} // namespace Velmora::Internal
