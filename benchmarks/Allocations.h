// SPDX-License-Identifier: MIT
// Counts the allocations of a piece of code.
#pragma once

#include <cstddef>

namespace Benchmarks {

// Returns how often the calling thread has called malloc, calloc and realloc, which `new` and
// g_malloc call.
std::size_t AllocationsOfThread();

} // namespace Benchmarks
