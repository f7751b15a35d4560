// SPDX-License-Identifier: MIT
// Decodes the bus messages that a monitor receives into what services send to each other.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include "BusDaemon.h"
#include "GLibPtr.h"
#include "TCMessage.h"

namespace Ctl {

using BusMessagePtr = std::unique_ptr<GDBusMessage, Velmora::Internal::Releaser<g_object_unref>>;

// A bus message, and when the monitor received it, in microseconds.
struct CapturedMessage
{
    BusMessagePtr message;
    gint64 monotonicTime;
    gint64 realTime;
};

// A message or signal between services, ready to be shown.
struct MonitoredMessage
{
    enum class Kind { Call, Reply, Error, Signal };

    Kind kind = Kind::Call;
    gint64 time = 0;               // microseconds since 1970
    std::string from;              // service names if they are known, otherwise unique names
    std::string to;                // empty for a signal
    std::string sender;            // unique name
    std::string destination;       // as in the bus message
    guint32 serial = 0;            // of the signal or the call; a reply has that of its call
    std::string member;            // name of the method, the signal or the error
    std::string subject;           // the service that is called, replies or emits
    std::optional<gint64> latency; // microseconds from the call to its reply or error
    std::string unknownBodyType;   // type of a body that the library does not send, otherwise empty
    Velmora::TCMessage content;
};

// Matches replies to their calls, and keeps track of which connection owns which services.
class MessageDecoder
{
public:
    // The services on the bus when monitoring starts.
    void SetServices(const std::vector<BusService>& services);

    // Decodes the next message. Returns null if it is not between services.
    std::unique_ptr<MonitoredMessage> Decode(const CapturedMessage& captured);

private:
    using CallId = std::pair<std::string, guint32>; // unique name of the caller, serial

    struct Call
    {
        gint64 monotonicTime;
        std::string from;
        std::string to;
    };

    std::unique_ptr<MonitoredMessage> DecodeCall(const CapturedMessage& captured);
    std::unique_ptr<MonitoredMessage> DecodeReply(const CapturedMessage& captured);
    std::unique_ptr<MonitoredMessage> DecodeSignal(const CapturedMessage& captured);
    void UpdateOwner(GVariant* nameOwnerChanged);
    std::string NameOf(const std::string& busName) const;

    std::map<std::string, std::set<std::string>> m_ServicesOf; // by unique name
    std::map<CallId, Call> m_PendingCalls;
};

} // namespace Ctl
