// What goes over the bus between services, read from the messages that a monitor gets.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include <gio/gio.h>

#include "Bus.h"
#include "TCMessage.h"

namespace Ctl {

using BusMessagePtr = std::unique_ptr<GDBusMessage, Velmora::Internal::Releaser<g_object_unref>>;

// A message, and when the monitor got it, in microseconds.
struct Sighting
{
    BusMessagePtr message;
    gint64 monotonicTime;
    gint64 realTime;
};

struct Transfer
{
    enum class Kind { Call, Reply, Error, Signal };

    Kind kind = Kind::Call;
    gint64 time = 0;         // since 1970
    std::string from;        // service names where they are known, else unique names
    std::string to;          // empty for a signal
    std::string sender;      // unique name
    std::string destination; // as the message has it
    guint32 serial = 0;      // of the call, also in what answers it; of the signal
    std::string member;      // method, signal or name of the error
    std::string subject;     // the service that is called, answers or emits
    std::optional<gint64> latency;
    std::string unreadable; // the type of a body that no service sends
    Velmora::TCMessage message;
};

class Traffic
{
public:
    // Who is there at the start.
    void SetServices(const std::vector<BusService>& services);

    // Takes the next message of the bus; nothing comes back for one that is not of services.
    std::unique_ptr<Transfer> Take(const Sighting& sighting);

private:
    using CallId = std::pair<std::string, guint32>; // unique name of the caller, serial

    struct Call
    {
        gint64 monotonicTime;
        std::string from;
        std::string to;
    };

    std::unique_ptr<Transfer> TakeCall(const Sighting& sighting);
    std::unique_ptr<Transfer> TakeAnswer(const Sighting& sighting);
    std::unique_ptr<Transfer> TakeSignal(const Sighting& sighting);
    void FollowOwner(GVariant* body);
    std::string NameOf(const std::string& busName) const;

    std::map<std::string, std::set<std::string>> m_ServicesOf; // by unique name
    std::map<CallId, Call> m_Calls;                            // those not answered yet
};

} // namespace Ctl
