// SPDX-License-Identifier: MIT
// The command "list": lists the services on the bus.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "BusDaemon.h"
#include "CommandLine.h"
#include "CommandTable.h"
#include "Failure.h"
#include "OutputWriter.h"
#include "Printable.h"

namespace Ctl {

using namespace Velmora::Internal;

namespace {

// Returns 0 if the connection is closed by now, or if the bus does not know its process.
guint32 ProcessOf(GDBusConnection* bus, const std::string& owner)
{
    try {
        const VariantPtr answer =
            CallBusDaemon(bus, "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                          g_variant_new("(s)", owner.c_str()), "(u)");
        guint32 process = 0;
        g_variant_get(answer.get(), "(u)", &process);
        return process;
    } catch (const Failure&) {
        return 0;
    }
}

// The command line of a process, empty if it cannot be read.
std::string CommandOf(guint32 process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/cmdline", std::ios::binary);
    std::string command{std::istreambuf_iterator<char>(file), {}};
    if (!command.empty() && command.back() == '\0') {
        command.pop_back();
    }
    std::replace(command.begin(), command.end(), '\0', ' ');
    return command;
}

Json::Value Record(const BusService& service, guint32 process, const std::string& command)
{
    Json::Value record;
    record["service"] = service.name;
    record["bus_name"] = service.busName;
    record["owner"] = service.owner;
    record["pid"] = process != 0 ? Json::Value(process) : Json::Value();
    record["command"] = Printable(command);
    return record;
}

} // namespace

int RunList(CommandLine& line)
{
    line.Parse();
    const ConnectionPtr bus = ConnectToBus();
    OutputWriter output(line.WantsJson());
    std::vector<std::vector<std::string>> rows;
    for (const BusService& service : ListServices(bus.get())) {
        const guint32 process = ProcessOf(bus.get(), service.owner);
        const std::string command = CommandOf(process);
        if (output.IsJson()) {
            output.WriteRecord(Record(service, process, command));
        } else {
            rows.push_back({service.name, process != 0 ? std::to_string(process) : "-",
                            service.owner, command.empty() ? "-" : Printable(command)});
        }
    }
    if (!output.IsJson()) {
        output.WriteTable({"SERVICE", "PID", "OWNER", "COMMAND"}, rows);
    }
    return output.Finish();
}

} // namespace Ctl
