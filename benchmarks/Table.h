// SPDX-License-Identifier: MIT
// The table at the end of a run: what the library does, compared with the plain way to do it.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace Benchmarks {

using Body = std::function<void(benchmark::State&)>;

struct Row
{
    std::string title;
    std::optional<double> target;             // the highest good ratio
    benchmark::IterationCount iterations = 0; // 0: as many as fit the measuring time
};

// The counter in which a body reports the allocations of one iteration.
inline constexpr char kAllocations[] = "allocs";

// Registers each side of a row as a benchmark, so that Google Benchmark can shuffle their
// repetitions. Collects the results, and prints medians and their ratio.
class Table : public benchmark::BenchmarkReporter
{
public:
    void Add(const Row& row, const Body& ours, const Body& plain);

    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;

private:
    struct Samples
    {
        std::vector<double> times;         // nanoseconds per iteration, one for each repetition
        std::optional<double> allocations; // the most in one repetition, if the body counts them
    };

    void PrintRow(const Row& row, const Samples& ours, const Samples& plain);

    std::vector<Row> m_Rows;
    std::map<std::string, Samples> m_Samples; // by the name of the benchmark
};

// Each adds the rows of one file.
void AddPostRows(Table& table);
void AddSyncSendRows(Table& table);
void AddAlarmRows(Table& table);
void AddLockRows(Table& table);
void AddPayloadRows(Table& table);

} // namespace Benchmarks
