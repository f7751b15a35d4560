// SPDX-License-Identifier: MIT
// Compares the library with the plain way to do the same, and prints one table.

#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "Table.h"

int main(int argc, char** argv)
{
    // Short repetitions in random order: load on the machine affects both sides alike.
    char repetitions[] = "--benchmark_repetitions=21";
    char shuffled[] = "--benchmark_enable_random_interleaving=true";
    char shortTime[] = "--benchmark_min_time=0.05";
    std::vector<char*> arguments{argv[0], repetitions, shuffled, shortTime};
    arguments.insert(arguments.end(), argv + 1, argv + argc); // these override the defaults
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
    // The C library uses cheaper locks until the process starts its first thread. Without this,
    // what is measured before that would look too good.
    std::thread([] {}).join();
    benchmark::RunSpecifiedBenchmarks(&table);
    benchmark::Shutdown();
    return 0;
}
