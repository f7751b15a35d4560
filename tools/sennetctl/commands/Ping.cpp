// SPDX-License-Identifier: MIT
// The command "ping": measures the round trip to a service.
#include <string>

#include "BusDaemon.h"
#include "CommandLine.h"
#include "CommandTable.h"
#include "Failure.h"
#include "OutputWriter.h"
#include "ServiceNames.h"
#include "TCServerHelper.h"
#include "TimeFormat.h"

namespace Ctl {

using namespace Velmora::Internal;

namespace {

// Returns the microseconds until the answer to a ping of D-Bus. The connection of the service
// answers it without calling a hook of the service.
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
        throw NoAnswer(service, timeout);
    }
    if (g_error_matches(raw, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) != FALSE ||
        g_error_matches(raw, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) != FALSE) {
        throw NoService(service);
    }
    g_dbus_error_strip_remote_error(raw);
    throw Failure(kFailed, service + ": " + raw->message);
}

} // namespace

int RunPing(CommandLine& line)
{
    const CountOption countOption(line, 1, "Number of pings (default: 1)");
    const TimeoutOption timeoutOption(line, "Time limit for each answer (default: 25000)");
    line.Parse();
    const int timeout = timeoutOption.Value(kAnswerTimeout);
    const int count = countOption.Value();
    const std::string& service = line.Arguments()[0];
    RequireBusName(service);
    const ConnectionPtr bus = ConnectToBus();
    OutputWriter output(line.WantsJson());
    for (int i = 0; i < count; ++i) {
        const long long elapsed = Ping(bus.get(), service, timeout);
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
