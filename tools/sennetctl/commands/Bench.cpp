// SPDX-License-Identifier: MIT
// The command "bench": measures how fast a service answers.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "CommandTable.h"
#include "MessageArguments.h"
#include "OutputWriter.h"
#include "ServiceNames.h"
#include "TimeFormat.h"
#include "ToolServer.h"

namespace Ctl {

using Velmora::TCMessage;

namespace {

using Times = std::vector<gint64>; // microseconds of each call, sorted

Times Measure(const std::string& service, const TCMessage& message, int count, int timeout)
{
    ToolServer server(kToolName, ToolServer::SERVER_TYPE_PROXY);
    Times times;
    for (int i = 0; i < count; ++i) {
        const gint64 start = g_get_monotonic_time();
        const TCMessage answer = server.Call(service, message, timeout);
        times.push_back(g_get_monotonic_time() - start);
    }
    std::sort(times.begin(), times.end());
    return times;
}

// The smallest time that is not exceeded by that share of the calls.
gint64 Percentile(const Times& times, unsigned int percent)
{
    return times[(times.size() * percent + 99) / 100 - 1];
}

std::string OneDecimal(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

} // namespace

int RunBench(CommandLine& line)
{
    MessageArguments arguments(line);
    const CountOption countOption(line, 1000, "Number of calls (default: 1000)");
    const TimeoutOption timeoutOption(line, "Time limit for each answer (default: 25000)");
    line.Parse();
    const int timeout = timeoutOption.Value(kAnswerTimeout);
    const int count = countOption.Value();
    const std::string& service = line.Arguments()[0];
    RequireBusName(service);

    const Times times = Measure(service, arguments.Build(line), count, timeout);
    gint64 total = 0;
    for (const gint64 time : times) {
        total += time;
    }
    const double perSecond = count * 1e6 / static_cast<double>(std::max<gint64>(total, 1));
    OutputWriter output(line.WantsJson());
    if (output.IsJson()) {
        Json::Value record;
        record["service"] = service;
        record["calls"] = count;
        record["calls_per_second"] = perSecond;
        record["p50_us"] = Json::Int64{Percentile(times, 50)};
        record["p99_us"] = Json::Int64{Percentile(times, 99)};
        record["max_us"] = Json::Int64{times.back()};
        output.WriteRecord(record);
    } else {
        output.WriteTable({"CALLS", "P50", "P99", "MAX", "CALLS/S"},
                          {{std::to_string(count), Milliseconds(Percentile(times, 50)),
                            Milliseconds(Percentile(times, 99)), Milliseconds(times.back()),
                            OneDecimal(perSecond)}});
    }
    return output.Finish();
}

} // namespace Ctl
