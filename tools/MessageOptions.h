// The message that the arguments of a command describe.
#pragma once

#include <string>

#include "CommandLine.h"
#include "TCMessage.h"

namespace Ctl {

class MessageOptions
{
public:
    // Adds the options --code, --type and --buffer, which are stored here.
    explicit MessageOptions(CommandLine& line);

    // After the line is parsed. The text is its second word, "-" means standard input.
    Velmora::TCMessage Build(const CommandLine& line) const;

private:
    gint64 m_Code = 0;
    OptionText m_Type;
    OptionText m_BufferFile;
};

} // namespace Ctl
