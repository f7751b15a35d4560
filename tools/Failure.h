// How a command ends when it does not do its work.
#pragma once

#include <stdexcept>
#include <string>

namespace Ctl {

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2, kTimedOut = 3 };

// Ends the program with this code, and the text as its one line on standard error. Not to be thrown
// where C code of GLib has called in.
class Failure : public std::runtime_error
{
public:
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), m_Code(code) {}

    ExitCode Code() const { return m_Code; }

private:
    ExitCode m_Code;
};

} // namespace Ctl
