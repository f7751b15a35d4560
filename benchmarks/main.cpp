// Measures the library beside the plain way of doing the same, and prints one table.

#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "TCLog.h"
#include "Table.h"

// The log costs what its sink costs; here it is off.
extern "C" int __dlog_print(int /*log_id*/, int /*priority*/, const char* /*tag*/,
                            const char* /*format*/, ...)
{
    return 0;
}

int main(int argc, char** argv)
{
    // Short repetitions in random order: a noisy stretch of the machine hits both sides alike.
    char repetitions[] = "--benchmark_repetitions=21";
    char shuffled[] = "--benchmark_enable_random_interleaving=true";
    char shortTime[] = "--benchmark_min_time=0.05";
    std::vector<char*> arguments{argv[0], repetitions, shuffled, shortTime};
    arguments.insert(arguments.end(), argv + 1, argv + argc); // so that these prevail
    auto count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);

    Benchmarks::Table table;
    Benchmarks::AddPostRows(table);
    Benchmarks::AddSyncSendRows(table);
    Benchmarks::AddAlarmRows(table);
    Benchmarks::AddLockRows(table);
    Benchmarks::AddPayloadRows(table);

    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 1;
    }
    // The C library takes cheaper locks until the process has had its first thread, which would
    // flatter whatever happens to be measured before that.
    std::thread([] {}).join();
    benchmark::RunSpecifiedBenchmarks(&table);
    benchmark::Shutdown();
    return 0;
}
