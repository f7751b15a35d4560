// SPDX-License-Identifier: MIT
// Reads and writes JSON text.
#pragma once

#include <optional>
#include <string>

#include <json/json.h>

namespace Ctl {

// Returns the value if the whole text is one JSON value.
std::optional<Json::Value> ReadJson(const std::string& text);

// On one line, with only ASCII characters.
std::string CompactJson(const Json::Value& value);

// On one line, with other characters as UTF-8.
std::string CompactUtf8Json(const Json::Value& value);

} // namespace Ctl
