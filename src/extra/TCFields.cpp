// SPDX-License-Identifier: MIT
#include "TCFields.h"

#include <cmath>
#include <cstring>

#include <glib.h>

namespace Velmora {

namespace {

constexpr char kNoText[] = "not UTF-8, or with a NUL";
constexpr char kNoKey[] = "has a key that is not UTF-8, or with a NUL";

bool IsText(const std::string& text)
{
    return g_utf8_validate_len(text.data(), text.size(), nullptr) != 0;
}

std::string Join(const std::string& path, const std::string& problem)
{
    if (path.empty()) {
        return problem;
    }
    return path.substr(path.front() == '.' ? 1 : 0) + ": " + problem;
}

} // namespace

namespace Internal {

std::string FieldReader::Why() const
{
    return Join(m_Path, m_Problem);
}

void FieldReader::AddToPath(const std::string& step)
{
    m_Path.insert(0, step);
}

const Json::Value* FieldReader::Find(const char* name) const
{
    return m_Object->find(name, name + std::strlen(name));
}

void FieldReader::Bool(const Json::Value& json, bool& field)
{
    if (json.isBool()) {
        field = json.asBool();
    } else {
        Fail("not a bool");
    }
}

bool FieldReader::Signed(const Json::Value& json, std::int64_t min, std::int64_t max,
                         std::int64_t& read)
{
    if (!json.isIntegral()) {
        Fail("not an integer");
    } else if (!json.isInt64() || json.asInt64() < min || json.asInt64() > max) {
        Fail("out of range");
    } else {
        read = json.asInt64();
    }
    return !Failed();
}

bool FieldReader::Unsigned(const Json::Value& json, std::uint64_t max, std::uint64_t& read)
{
    if (!json.isIntegral()) {
        Fail("not an integer");
    } else if (!json.isUInt64() || json.asUInt64() > max) {
        Fail("out of range");
    } else {
        read = json.asUInt64();
    }
    return !Failed();
}

bool FieldReader::Double(const Json::Value& json, double max, double& read)
{
    if (!json.isNumeric()) {
        Fail("not a number");
    } else if (!std::isfinite(json.asDouble()) || std::fabs(json.asDouble()) > max) {
        Fail("out of range");
    } else {
        read = json.asDouble();
    }
    return !Failed();
}

void FieldReader::String(const Json::Value& json, std::string& field)
{
    if (!json.isString()) {
        Fail("not a string");
    } else if (std::string text = json.asString(); !IsText(text)) {
        Fail(kNoText);
    } else {
        field = std::move(text);
    }
}

bool FieldReader::Key(const std::string& key)
{
    if (!IsText(key)) {
        Fail(kNoKey);
    }
    return !Failed();
}

bool FieldReader::Object(const Json::Value& json)
{
    if (!json.isObject()) {
        Fail("not a JSON object");
    }
    return !Failed();
}

bool FieldReader::Array(const Json::Value& json)
{
    if (!json.isArray()) {
        Fail("not an array");
    }
    return !Failed();
}

std::string FieldWriter::Why() const
{
    return Join(m_Path, m_Problem);
}

void FieldWriter::AddToPath(const std::string& step)
{
    m_Path.insert(0, step);
}

Json::Value FieldWriter::Double(double field)
{
    if (!std::isfinite(field)) {
        Fail("not a finite number");
        return {};
    }
    return field;
}

Json::Value FieldWriter::String(const std::string& field)
{
    if (!IsText(field)) {
        Fail(kNoText);
        return {};
    }
    return field;
}

bool FieldWriter::Key(const std::string& key)
{
    if (!IsText(key)) {
        Fail(kNoKey);
    }
    return !Failed();
}

bool TellWhy(const std::string& reason, std::string* why)
{
    if (why != nullptr) {
        *why = reason;
    }
    return false;
}

void SetJson(Json::Value json, TCMessage& message)
{
    if (json.empty()) {
        message.SetMessage("{}"); // an empty JSON does not replace the text
    } else {
        message.m_Json = std::move(json);
        message.Generate();
    }
}

} // namespace Internal
} // namespace Velmora
