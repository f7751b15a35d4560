// SPDX-License-Identifier: MIT
// Pins threads to processors.
#pragma once

#include <vector>

#include <sched.h>

namespace Benchmarks {

// The processors that this process may run on.
std::vector<int> Processors();

// Pins the calling thread.
void Pin(int processor);

// Pins the calling thread for a scope.
class Pinned
{
public:
    explicit Pinned(int processor);
    ~Pinned();
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;

private:
    cpu_set_t m_Before;
};

} // namespace Benchmarks
