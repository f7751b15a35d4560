// Counts what a stretch of code allocates.
#pragma once

#include <cstddef>

namespace Benchmarks {

// How often the calling thread has allocated so far: through malloc, calloc, realloc, and so
// through `new` and g_malloc.
std::size_t AllocationsOfThread();

} // namespace Benchmarks
