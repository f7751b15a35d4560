// SPDX-License-Identifier: MIT
#include "Table.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

namespace Benchmarks {

namespace {

constexpr int kTitleWidth = 38;
constexpr int kWidth = 11;

std::string OursName(const Row& row)
{
    return row.title + "/ours";
}

std::string PlainName(const Row& row)
{
    return row.title + "/plain";
}

void Register(const std::string& name, const Row& row, const Body& body)
{
    auto* const registered = benchmark::RegisterBenchmark(name.c_str(), body);
    registered->UseRealTime();
    if (row.iterations > 0) {
        registered->Iterations(row.iterations);
    }
}

double Median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

std::string Fixed(double value, int digits)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(digits) << value;
    return text.str();
}

std::string Allocations(const std::optional<double>& ours, const std::optional<double>& plain)
{
    return ours && plain ? Fixed(*ours, 0) + " / " + Fixed(*plain, 0) : "";
}

} // namespace

void Table::Add(const Row& row, const Body& ours, const Body& plain)
{
    Register(OursName(row), row, ours);
    Register(PlainName(row), row, plain);
    m_Rows.push_back(row);
}

bool Table::ReportContext(const Context& context)
{
    PrintBasicContext(&GetErrorStream(), context);
    return true;
}

void Table::ReportRuns(const std::vector<Run>& runs)
{
    for (const Run& run : runs) {
        if (run.run_type != Run::RT_Iteration) {
            continue;
        }
        Samples& samples = m_Samples[run.run_name.function_name];
        samples.times.push_back(run.GetAdjustedRealTime());
        if (const auto found = run.counters.find(kAllocations); found != run.counters.end()) {
            samples.allocations = std::max(samples.allocations.value_or(0), found->second.value);
        }
    }
}

void Table::Finalize()
{
    std::ostream& out = GetOutputStream();
    out << "Medians in ns; the ratio is ours to plain, so below 1 is faster; allocations of one "
           "iteration are ours / plain\n\n";
    out << std::left << std::setw(kTitleWidth) << "row" << std::right;
    for (const char* head : {"ours", "plain", "ratio", "target", "allocs"}) {
        out << " |" << std::setw(kWidth) << head;
    }
    out << '\n';
    for (const Row& row : m_Rows) {
        const auto ours = m_Samples.find(OursName(row));
        const auto plain = m_Samples.find(PlainName(row));
        if (ours != m_Samples.end() && plain != m_Samples.end()) { // neither is filtered out
            PrintRow(row, ours->second, plain->second);
        }
    }
}

void Table::PrintRow(const Row& row, const Samples& ours, const Samples& plain)
{
    const double oursTime = Median(ours.times);
    const double plainTime = Median(plain.times);
    const std::string cells[] = {Fixed(oursTime, 1), Fixed(plainTime, 1),
                                 Fixed(oursTime / plainTime, 2),
                                 row.target ? "<= " + Fixed(*row.target, 2) : "",
                                 Allocations(ours.allocations, plain.allocations)};
    std::ostream& out = GetOutputStream();
    out << std::left << std::setw(kTitleWidth) << row.title << std::right;
    for (const std::string& cell : cells) {
        out << " |" << std::setw(kWidth) << cell;
    }
    out << '\n';
}

} // namespace Benchmarks
