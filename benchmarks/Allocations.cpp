// SPDX-License-Identifier: MIT
#include "Allocations.h"

namespace {

thread_local std::size_t g_Allocations = 0;

} // namespace

// Replaces the C library's malloc, calloc and realloc for the whole process, GLib and the C++
// runtime included, and calls glibc's own by their internal names.
extern "C" {

void* __libc_malloc(std::size_t size);                    // NOLINT
void* __libc_calloc(std::size_t count, std::size_t size); // NOLINT
void* __libc_realloc(void* block, std::size_t size);      // NOLINT

void* malloc(std::size_t size)
{
    ++g_Allocations;
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    ++g_Allocations;
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size)
{
    ++g_Allocations;
    return __libc_realloc(block, size);
}
}

std::size_t Benchmarks::AllocationsOfThread()
{
    return g_Allocations;
}
