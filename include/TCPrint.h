// SPDX-License-Identifier: MIT
/// @file
/// The performance trace, under a log tag of its own.
#pragma once

#include <cstdint>

#include "SennetApi.h"

namespace Velmora {

/// Measures how long a piece of code takes. It writes the time, in whole milliseconds of the
/// monotonic clock, under the log tag "WPERF" at error priority.
///
/// An object on the stack measures its scope: it writes an IN line when it is constructed and an
/// OUT line with the time when it is destructed. Start() and End() measure any other piece of code.
/// Use an object on one thread only.
class SENNET_API TCPrint
{
public:
    /// For use with Start() and End(); writes nothing.
    TCPrint() = default;

    /// Begins to measure a scope and writes the IN line.
    /// @param mode 1: the destructor writes the OUT line; any other value: it does not
    /// @param name not copied; must outlive the object
    /// @param unused has no effect
    TCPrint(int mode, const char* name, int unused);

    ~TCPrint();
    TCPrint(const TCPrint&) = delete;
    TCPrint& operator=(const TCPrint&) = delete;

    /// Begins to measure and writes the START line. The name and the number are only printed.
    void Start(const char* name, int number);

    /// Writes the END line with the time since the last Start(). Call Start() first.
    void End(const char* name, int number);

    /// Passes the line "[sennet][name][number]text" to the platform's kernel (prctl, option 666).
    /// The line is cut at 199 bytes, and the part before the text at 190. Has no effect on other
    /// kernels. Allocates no memory; any thread may call it.
    static void sennet_hw_clock_s(const char* name, int number, const char* format, ...)
        __attribute__((format(printf, 3, 4)));

private:
    std::uint64_t m_ScopeStart = 0; ///< milliseconds
    std::uint64_t m_MarkStart = 0;  ///< milliseconds
    int m_Mode = 0;
    const char* m_Name = nullptr; ///< not owned
};

} // namespace Velmora
