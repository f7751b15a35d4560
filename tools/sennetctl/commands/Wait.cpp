// SPDX-License-Identifier: MIT
// The command "wait": waits until a service is on the bus.
#include <string>

#include "BusDaemon.h"
#include "BusLoop.h"
#include "CommandLine.h"
#include "CommandTable.h"
#include "Failure.h"
#include "OutputWriter.h"
#include "ServiceNames.h"

namespace Ctl {

namespace {

struct NameWatch
{
    BusLoop& loop;
    std::string owner; // empty until the name appears

    static void OnAppeared(GDBusConnection* /*bus*/, const char* /*name*/, const char* owner,
                           gpointer data)
    {
        auto* const watch = static_cast<NameWatch*>(data);
        watch->owner = owner;
        watch->loop.Quit();
    }
};

} // namespace

int RunWait(CommandLine& line)
{
    const TimeoutOption timeoutOption(line, "Time limit (default: none)");
    line.Parse();
    const int timeout = timeoutOption.Value(0);
    const std::string& service = line.Arguments()[0];
    const std::string busName = RequireBusName(service);
    const ConnectionPtr bus = ConnectToBus();
    BusLoop loop(bus.get());
    NameWatch watch{loop, ""};
    const gint64 start = g_get_monotonic_time();
    const guint watchId =
        g_bus_watch_name_on_connection(bus.get(), busName.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
                                       &NameWatch::OnAppeared, nullptr, &watch, nullptr);
    const bool appeared = loop.Run(timeout);
    g_bus_unwatch_name(watchId);
    if (!appeared) {
        throw Failure(kTimedOut, service + ": did not appear on the bus within " +
                                     std::to_string(timeout) + " ms");
    }
    OutputWriter output(line.WantsJson());
    if (output.IsJson()) {
        Json::Value record;
        record["service"] = service;
        record["owner"] = watch.owner;
        record["elapsed_us"] = Json::Int64{g_get_monotonic_time() - start};
        output.WriteRecord(record);
    } else {
        output.WriteText(service + " is on the bus as " + watch.owner + "\n");
    }
    return output.Finish();
}

} // namespace Ctl
