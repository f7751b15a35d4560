// The processes of the soak, each of them kept busy until its standard input ends.
#pragma once

#include <atomic>
#include <cstdint>

namespace Soak {

// What a process has to tell so far.
struct Counts
{
    std::atomic<std::uint64_t> sent{0};    // sends that were accepted, and sync ones answered
    std::atomic<std::uint64_t> lost{0};    // accepted, and never arrived or answered wrongly
    std::atomic<std::uint64_t> refused{0}; // sends that were not accepted
};

// Runs the role that has the name and reports for each line on standard input: counts, memory in
// KiB, descriptors, threads. Returns the exit code.
int RunRole(const char* name);

} // namespace Soak
