// The table that the run ends with: each thing the library does beside the plain way of doing it.
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
    std::optional<double> target;             // the highest ratio that is good enough
    benchmark::IterationCount iterations = 0; // 0: as many as the measuring time takes
};

// The counter in which a body reports the allocations of one iteration.
inline constexpr char kAllocations[] = "allocs";

// Registers the two sides of each row as benchmarks of their own, so that Google Benchmark can
// shuffle their repetitions, collects what it measures, and prints medians and their ratio.
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
        std::vector<double> times;         // nanoseconds of one iteration, one of each repetition
        std::optional<double> allocations; // the highest seen, where the body counts them
    };

    void PrintRow(const Row& row, const Samples& ours, const Samples& plain);

    std::vector<Row> m_Rows;
    std::map<std::string, Samples> m_Samples; // by the name of the benchmark
};

// What each file of this folder measures.
void AddPostRows(Table& table);
void AddSyncSendRows(Table& table);
void AddAlarmRows(Table& table);
void AddLockRows(Table& table);
void AddPayloadRows(Table& table);

} // namespace Benchmarks
