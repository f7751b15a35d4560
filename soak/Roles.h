// SPDX-License-Identifier: MIT
// The processes of the soak. Each works until its standard input ends.
#pragma once

#include <atomic>
#include <cstdint>

namespace Soak {

// What a process has counted so far.
struct Counts
{
    std::atomic<std::uint64_t> sent{0}; // accepted sends; a synchronous one also got its reply
    std::atomic<std::uint64_t> lost{0}; // accepted sends that did not arrive or got a wrong reply
    std::atomic<std::uint64_t> refused{0}; // rejected sends
};

// Runs the role with this name. For each line on standard input it prints the counts, memory in
// KiB, descriptors and threads. Returns the exit code.
int RunRole(const char* name);

} // namespace Soak
