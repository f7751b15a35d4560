/// @file
/// The performance trace, under a log tag of its own.
#pragma once

#include <cstdint>

#pragma GCC visibility push(default)

namespace Velmora {

/// Measures how long a stretch of code takes, in whole milliseconds of the monotonic clock, and
/// writes the result under the log tag "WPERF" at error priority.
///
/// As an object on the stack it writes an IN line when it is made and an OUT line with the duration
/// when it goes; with Start() and End() it measures any stretch. An object belongs to one thread.
class __attribute__((visibility("default"))) TCPrint
{
public:
    /// For Start() and End(); writes nothing.
    TCPrint() = default;

    /// Begins a scope and writes the IN line.
    /// @param mode 1: the destructor writes the OUT line; any other value: it does not
    /// @param name not copied: has to outlive the object
    /// @param unused has no effect
    TCPrint(int mode, const char* name, int unused);

    ~TCPrint();
    TCPrint(const TCPrint&) = delete;
    TCPrint& operator=(const TCPrint&) = delete;

    /// Begins a stretch and writes the START line. Name and number are only printed.
    void Start(const char* name, int number);

    /// Writes the END line with the time since the last Start(), which must have been called.
    void End(const char* name, int number);

    /// Hands the line "[sennet][name][number]text" to the platform's kernel (prctl, option 666), at
    /// most 199 bytes, the name's part of it at most 190. Has no effect on other kernels. Allocates
    /// nothing; may be called on any thread.
    static void sennet_hw_clock_s(const char* name, int number, const char* format, ...)
        __attribute__((format(printf, 3, 4)));

private:
    std::uint64_t m_ScopeStart = 0; ///< milliseconds
    std::uint64_t m_MarkStart = 0;  ///< milliseconds
    int m_Mode = 0;
    const char* m_Name = nullptr; ///< not owned
};

} // namespace Velmora

#pragma GCC visibility pop
