// SPDX-License-Identifier: MIT
// The exit codes, and the exception that ends the tool with one of them.
#pragma once

#include <stdexcept>
#include <string>

namespace Ctl {

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2, kTimedOut = 3 };

// The library tells some reasons in its log alone.
constexpr char kSeeLog[] = "SENNET_LOG_LEVEL=error shows why";

// Ends the tool with this exit code; the text is its one line on standard error. Do not throw it
// from a callback of GLib, because an exception must not pass through C code.
class Failure : public std::runtime_error
{
public:
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), m_Code(code) {}

    ExitCode Code() const { return m_Code; }

private:
    ExitCode m_Code;
};

inline Failure NoService(const std::string& service)
{
    return {kFailed, "no service " + service + " on the bus"};
}

inline Failure NoAnswer(const std::string& service, int timeout)
{
    return {kTimedOut, service + ": no answer within " + std::to_string(timeout) + " ms"};
}

} // namespace Ctl
