// sennetctl bench
#include <algorithm>
#include <cstdio>

#include "CommandLine.h"
#include "Endpoint.h"
#include "Failure.h"
#include "MessageOptions.h"
#include "Output.h"
#include "Text.h"

namespace Ctl {

using Velmora::TCMessage;
using Velmora::TCServer;

namespace {

using Times = std::vector<gint64>; // of each call in microseconds, sorted

Times Measure(const std::string& service, const TCMessage& message, int count, int timeout)
{
    Endpoint endpoint(kToolName, TCServer::SERVER_TYPE_PROXY);
    Times times;
    for (int i = 0; i < count; ++i) {
        TCMessage answer;
        const gint64 start = g_get_monotonic_time();
        endpoint.Ask(service, message, timeout, answer);
        times.push_back(g_get_monotonic_time() - start);
    }
    std::sort(times.begin(), times.end());
    return times;
}

// The smallest time that this share of the calls has not exceeded.
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
    MessageOptions options(line);
    int count = 1000;
    line.Add({{"count", 'n', 0, G_OPTION_ARG_INT, &count, "Number of calls (default: 1000)", "N"}});
    const TimeoutOption timeout(line, "Wait that long for each answer (default: 25000)");
    line.Parse();
    const int limit = timeout.Value(kDefaultTimeout);
    if (count < 1) {
        throw Failure(kUsage, "a number of calls is above 0");
    }
    const std::string& service = line.Words()[0];
    RequireBusName(service);

    const Times times = Measure(service, options.Build(line), count, limit);
    gint64 total = 0;
    for (const gint64 time : times) {
        total += time;
    }
    const double perSecond = count * 1e6 / static_cast<double>(std::max<gint64>(total, 1));
    Output output(line.WantsJson());
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
