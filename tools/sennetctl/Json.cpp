// SPDX-License-Identifier: MIT
#include "Json.h"

#include <memory>

#include "TCMessage.h"

namespace Ctl {

namespace {

std::string WriteJson(const Json::Value& value, bool asUtf8)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = asUtf8;
    return Json::writeString(builder, value);
}

} // namespace

std::optional<Json::Value> ReadJson(const std::string& text)
{
    // The library accepts text after the first value, but rejects a value that is nested too deep
    // for the stack of this thread.
    if (!Velmora::TCData(text).Parse()) {
        return std::nullopt;
    }
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
        return std::nullopt;
    }
    return value;
}

std::string CompactJson(const Json::Value& value)
{
    return WriteJson(value, false);
}

std::string CompactUtf8Json(const Json::Value& value)
{
    return WriteJson(value, true);
}

} // namespace Ctl
