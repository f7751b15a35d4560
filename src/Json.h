// SPDX-License-Identifier: MIT
// JSON as text.
#pragma once

#include <string>

#include <json/json.h>

namespace Velmora::Internal {

// Reads the first complete value of a text. Returns false with a report if there is none; `value`
// may then hold a part of one. The same is true if this throws std::bad_alloc.
bool ReadJson(const std::string& text, Json::Value& value, std::string& report);

// On one line, without blanks.
std::string WriteJson(const Json::Value& value);

} // namespace Velmora::Internal
