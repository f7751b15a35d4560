// sennetctl ping
#include "Bus.h"
#include "CommandLine.h"
#include "Endpoint.h"
#include "Failure.h"
#include "Output.h"
#include "Text.h"

namespace Ctl {

using namespace Velmora::Internal;

namespace {

// Microseconds until the answer to the ping of D-Bus, which the bus connection of the service gives
// without a look at the service's hooks.
long long Ping(GDBusConnection* bus, const std::string& service, int timeout)
{
    const std::string busName = RequireBusName(service);
    GError* raw = nullptr;
    const gint64 start = g_get_monotonic_time();
    const VariantPtr answer(g_dbus_connection_call_sync(
        bus, busName.c_str(), Velmora::TCServerHelper::GetObjectPath(busName).c_str(),
        "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
        timeout, nullptr, &raw));
    const gint64 elapsed = g_get_monotonic_time() - start;
    const ErrorPtr error(raw);
    if (answer) {
        return elapsed;
    }
    if (g_error_matches(raw, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) != FALSE) {
        ThrowTimeout(service, timeout);
    }
    if (g_error_matches(raw, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) != FALSE ||
        g_error_matches(raw, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) != FALSE) {
        throw Failure(kFailed, "no service " + service + " on the bus");
    }
    g_dbus_error_strip_remote_error(raw);
    throw Failure(kFailed, service + ": " + raw->message);
}

} // namespace

int RunPing(CommandLine& line)
{
    int count = 1;
    line.Add({{"count", 'n', 0, G_OPTION_ARG_INT, &count, "Number of pings (default: 1)", "N"}});
    const TimeoutOption timeout(line, "Wait that long for each answer (default: 25000)");
    line.Parse();
    const int limit = timeout.Value(kDefaultTimeout);
    if (count < 1) {
        throw Failure(kUsage, "a number of pings is above 0");
    }
    const std::string& service = line.Words()[0];
    RequireBusName(service);
    const ConnectionPtr bus = ConnectToBus();
    Output output(line.WantsJson());
    for (int i = 0; i < count; ++i) {
        const long long elapsed = Ping(bus.get(), service, limit);
        if (output.IsJson()) {
            Json::Value record;
            record["service"] = service;
            record["elapsed_us"] = Json::Int64{elapsed};
            output.WriteRecord(record);
        } else {
            output.WriteText(service + ": " + Milliseconds(elapsed) + "\n");
        }
    }
    return output.Finish();
}

} // namespace Ctl
