// SPDX-License-Identifier: MIT
// Checks of what the code relies on.
//
// SENNET_CHECK is for invariants of the library alone: nothing that a client, a peer on the bus or
// a fork does may make one fail. It ends the process, so what can go wrong in use gets an error
// line and the failure value instead. Without SENNET_CHECKS the condition is compiled, but never
// evaluated.
#pragma once

#ifdef SENNET_CHECKS

#include <cstdio>
#include <cstdlib>

namespace Velmora::Internal {

[[noreturn]] inline void CheckFailed(const char* condition, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, condition);
    std::abort();
}

} // namespace Velmora::Internal

#define SENNET_CHECK(condition)                                                                    \
    ((condition) ? static_cast<void>(0)                                                            \
                 : ::Velmora::Internal::CheckFailed(#condition, __FILE__, __LINE__))

#else

#define SENNET_CHECK(condition) static_cast<void>(sizeof((condition) ? 1 : 0))

#endif
