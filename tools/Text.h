// Texts and bytes from the bus in a form for people and for programs.
#pragma once

#include <optional>
#include <string>

#include <json/json.h>

#include "TCMessage.h"

namespace Ctl {

// One line that a terminal can be given: control characters, which could move the cursor or forge a
// line, are written as escapes.
std::string Printable(const std::string& text);

// The value of a text that is JSON from end to end. The reader of the library stops after the first
// value, but knows how deep this thread's stack lets a reader go.
std::optional<Json::Value> ReadJson(const std::string& text);

std::string CompactJson(const Json::Value& value);

// The same of a name or another text that is short as a rule, and cut if it is not.
std::string PrintableName(const std::string& text);

// The content of a message in lines, each behind the indent: its text, JSON laid out, and the
// buffer as a hex dump if wanted. What is long is cut, and a line says so.
std::string DescribeContent(const Velmora::TCMessage& message, const std::string& indent,
                            bool withBuffer);

// The members "code", "type", "text", "json" if the text is that, and "buffer" in hex if there is
// one.
void AddContent(Json::Value& record, const Velmora::TCMessage& message);

// Of a code and a type that are set, " code 7 type greeting".
std::string DescribeKind(const Velmora::TCMessage& message);

std::string Milliseconds(long long microseconds);

} // namespace Ctl
