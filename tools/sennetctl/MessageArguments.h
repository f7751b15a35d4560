// SPDX-License-Identifier: MIT
// The arguments that describe a message to send: --code, --type, --buffer and the text.
#pragma once

#include "CommandLine.h"
#include "TCMessage.h"

namespace Ctl {

class MessageArguments
{
public:
    // Adds the options, whose values are stored in this object.
    explicit MessageArguments(CommandLine& line);

    // The message; call this after Parse(). The text is the second argument, and "-" reads it from
    // standard input. Throws a Failure if the message cannot be sent as it was given.
    Velmora::TCMessage Build(const CommandLine& line) const;

private:
    gint64 m_Code = 0;
    StringOption m_Type;
    StringOption m_BufferFile;
};

} // namespace Ctl
