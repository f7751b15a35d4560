// sennetctl wait
#include "Bus.h"
#include "BusLoop.h"
#include "CommandLine.h"
#include "Endpoint.h"
#include "Failure.h"
#include "Output.h"

namespace Ctl {

namespace {

struct Awaited
{
    BusLoop& loop;
    std::string owner;

    static void OnAppeared(GDBusConnection* /*bus*/, const char* /*name*/, const char* owner,
                           gpointer data)
    {
        auto* const awaited = static_cast<Awaited*>(data);
        awaited->owner = owner;
        awaited->loop.Quit();
    }
};

} // namespace

int RunWait(CommandLine& line)
{
    const TimeoutOption timeout(line, "Wait no longer than that (default: no limit)");
    line.Parse();
    const int limit = timeout.Value(0);
    const std::string& service = line.Words()[0];
    const std::string busName = RequireBusName(service);
    const ConnectionPtr bus = ConnectToBus();
    BusLoop loop(bus.get());
    Awaited awaited{loop, ""};
    const gint64 start = g_get_monotonic_time();
    const guint watch =
        g_bus_watch_name_on_connection(bus.get(), busName.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
                                       &Awaited::OnAppeared, nullptr, &awaited, nullptr);
    const bool appeared = loop.Run(limit);
    g_bus_unwatch_name(watch);
    if (!appeared) {
        ThrowTimeout(service, limit);
    }
    Output output(line.WantsJson());
    if (output.IsJson()) {
        Json::Value record;
        record["service"] = service;
        record["owner"] = awaited.owner;
        record["elapsed_us"] = Json::Int64{g_get_monotonic_time() - start};
        output.WriteRecord(record);
    } else {
        output.WriteText(service + " is on the bus as " + awaited.owner + "\n");
    }
    return output.Finish();
}

} // namespace Ctl
