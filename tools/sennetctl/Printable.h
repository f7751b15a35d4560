// SPDX-License-Identifier: MIT
// Makes text from the bus safe to print.
#pragma once

#include <cstddef>
#include <string>

namespace Ctl {

// The text as one line. Control characters, which could move the cursor or fake a line, are written
// as escapes.
std::string Printable(const std::string& text);

// The same for a name or another text that is normally short; a long one is cut.
std::string PrintableName(const std::string& text);

// At most that many bytes of the text, without cutting a UTF-8 character in two.
std::string TruncateUtf8(const std::string& text, std::size_t limit);

} // namespace Ctl
