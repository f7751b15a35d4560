// SPDX-License-Identifier: MIT
// Formats a message: as text for people, and as a JSON record for programs.
#pragma once

#include <string>

#include <json/json.h>

#include "TCMessage.h"

namespace Ctl {

// The content as lines that begin with the indent: the text, with JSON laid out, and the buffer as
// a hex dump if wanted. Long content is cut, and a line reports that.
std::string DescribeContent(const Velmora::TCMessage& message, const std::string& indent,
                            bool withBuffer);

// The code and the type, such as " code 7 type greeting", each only if it is set.
std::string DescribeCodeAndType(const Velmora::TCMessage& message);

// Adds the members "code", "type" and "text" to the record, "json" if the text is JSON, and
// "buffer" in hex if there is one.
void AddContent(Json::Value& record, const Velmora::TCMessage& message);

} // namespace Ctl
