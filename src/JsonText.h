// JSON as the text that travels.
#pragma once

#include <string>

#include <json/json.h>

namespace Velmora::Internal {

// On one line, without blanks.
std::string WriteJson(const Json::Value& value);

} // namespace Velmora::Internal
