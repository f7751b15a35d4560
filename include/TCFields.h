// SPDX-License-Identifier: MIT
/// @file
/// Structs as the JSON of messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <json/json.h>

#include "SennetApi.h"
#include "TCMessage.h"

/// Lists the fields of a struct that a message carries, so that Velmora::Read() and
/// Velmora::Write() know them. Use it after the struct, in its namespace; at most 64 fields.
///
/// ~~~{.cpp}
/// struct Reading
/// {
///     double celsius = 0;
///     std::int64_t when = 0;
///     std::vector<std::string> tags;
///     std::optional<std::string> note;
/// };
/// SENNET_FIELDS(Reading, celsius, when, tags, note)
///
/// Reading reading;
/// std::string why;
/// if (!Velmora::Read(message, reading, &why)) {
///     VELMORA_LOGE("not a reading: %s", why.c_str()); // "tags[2]: not a string"
/// }
/// ~~~
///
/// A field is a bool, an integer, a double or float, a std::string, a std::vector, a std::optional,
/// a std::map with std::string as key, or a struct that has SENNET_FIELDS itself.
#define SENNET_FIELDS(Type, ...)                                                                   \
    template <typename Value, typename Visitor>                                                    \
    void VisitSennetFields(const Type* /*tag*/, Value& value, Visitor& visitor)                    \
    {                                                                                              \
        SENNET_EACH(__VA_ARGS__)                                                                   \
    }

namespace Velmora {

/// @cond internal
namespace Internal {

// Reads a JSON value into a field. The first failure ends the work.
class SENNET_API FieldReader
{
public:
    bool Failed() const { return !m_Problem.empty(); }
    // "path: problem"
    std::string Why() const;

    template <typename T>
    void Value(const Json::Value& json, T& field);
    template <typename T>
    void Field(const char* name, T& field);

private:
    template <typename T>
    struct IsOptional : std::false_type
    {};
    template <typename T>
    struct IsOptional<std::optional<T>> : std::true_type
    {};

    void Fail(const char* problem) { m_Problem = problem; }
    // At the end of a level that has failed: the path grows from the inside.
    void AddToPath(const std::string& step);
    // Null if the object has no such key.
    const Json::Value* Find(const char* name) const;

    void Bool(const Json::Value& json, bool& field);
    bool Signed(const Json::Value& json, std::int64_t min, std::int64_t max, std::int64_t& read);
    bool Unsigned(const Json::Value& json, std::uint64_t max, std::uint64_t& read);
    bool Double(const Json::Value& json, double max, double& read);
    void String(const Json::Value& json, std::string& field);
    bool Key(const std::string& key);
    bool Object(const Json::Value& json);
    bool Array(const Json::Value& json);

    template <typename T>
    void One(const Json::Value& json, std::vector<T>& field);
    template <typename T>
    void One(const Json::Value& json, std::map<std::string, T>& field);
    template <typename T>
    void One(const Json::Value& json, std::optional<T>& field);
    template <typename T>
    void One(const Json::Value& json, T& field);

    const Json::Value* m_Object = nullptr; // whose fields are being read
    std::string m_Path;
    std::string m_Problem;
};

// Writes a field into a JSON value. The first failure ends the work.
class SENNET_API FieldWriter
{
public:
    bool Failed() const { return !m_Problem.empty(); }
    std::string Why() const;

    template <typename T>
    Json::Value Value(const T& field);
    template <typename T>
    void Field(const char* name, const T& field);

private:
    void Fail(const char* problem) { m_Problem = problem; }
    void AddToPath(const std::string& step);
    Json::Value Double(double field);
    Json::Value String(const std::string& field);
    bool Key(const std::string& key);

    template <typename T>
    Json::Value One(const std::vector<T>& field);
    template <typename T>
    Json::Value One(const std::map<std::string, T>& field);
    template <typename T>
    Json::Value One(const std::optional<T>& field);
    template <typename T>
    Json::Value One(const T& field);
    template <typename T>
    void Add(const char* name, const T& field);
    template <typename T>
    void Add(const char* name, const std::optional<T>& field);

    Json::Value* m_Object = nullptr; // whose fields are being written
    std::string m_Path;
    std::string m_Problem;
};

SENNET_API bool TellWhy(const std::string& reason, std::string* why);
SENNET_API void SetJson(Json::Value json, TCMessage& message);

} // namespace Internal
/// @endcond

/// Reads the JSON of a message into a struct. Throws nothing, whatever a peer has sent.
///
/// Keys that the struct does not have are ignored. A missing key is an error, except for a
/// std::optional, which is then empty, as for null. An integer must fit and have no fraction: 1.0
/// counts as 1. A number for a double must be finite. A text or the key of a map must be UTF-8
/// without a NUL; the escapes of JSON can express others.
/// @param message what a peer has sent
/// @param reading unchanged if the message does not fit
/// @param why receives the path of the wrong field and what is wrong, for example
///            "sensor.celsius: missing"; may be null
/// @return whether the message fits
template <typename T>
bool Read(const TCMessage& message, T& reading, std::string* why = nullptr)
{
    T copy = reading;
    Internal::FieldReader reader;
    reader.Value(message.m_Json, copy);
    if (reader.Failed()) {
        return Internal::TellWhy(reader.Why(), why);
    }
    reading = std::move(copy);
    return true;
}

/// Replaces the text and the JSON of a message with a struct. A std::optional that is empty is left
/// out, but within a vector or map it is null.
/// @param reading what to write
/// @param message unchanged if the struct cannot be written
/// @param why receives the path of the wrong field and what is wrong; may be null
/// @return false if a number is not finite, or a text is not UTF-8 or contains a NUL
template <typename T>
bool Write(const T& reading, TCMessage& message, std::string* why = nullptr)
{
    Internal::FieldWriter writer;
    Json::Value json = writer.Value(reading);
    if (writer.Failed()) {
        return Internal::TellWhy(writer.Why(), why);
    }
    Internal::SetJson(std::move(json), message);
    return true;
}

/// @cond internal
namespace Internal {

template <typename T>
void FieldReader::Value(const Json::Value& json, T& field)
{
    if constexpr (std::is_same_v<T, bool>) {
        Bool(json, field);
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
        std::int64_t read = 0;
        if (Signed(json, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), read)) {
            field = static_cast<T>(read);
        }
    } else if constexpr (std::is_integral_v<T>) {
        std::uint64_t read = 0;
        if (Unsigned(json, std::numeric_limits<T>::max(), read)) {
            field = static_cast<T>(read);
        }
    } else if constexpr (std::is_floating_point_v<T>) {
        double read = 0;
        if (Double(json, static_cast<double>(std::numeric_limits<T>::max()), read)) {
            field = static_cast<T>(read);
        }
    } else if constexpr (std::is_same_v<T, std::string>) {
        String(json, field);
    } else {
        One(json, field);
    }
}

template <typename T>
void FieldReader::Field(const char* name, T& field)
{
    if (Failed()) {
        return;
    }
    if (const Json::Value* const json = Find(name); json != nullptr) {
        Value(*json, field);
    } else if constexpr (IsOptional<T>::value) {
        field.reset();
    } else {
        Fail("missing");
    }
    if (Failed()) {
        AddToPath(std::string(".") + name);
    }
}

template <typename T>
void FieldReader::One(const Json::Value& json, std::vector<T>& field)
{
    field.clear();
    const Json::ArrayIndex size = Array(json) ? json.size() : 0;
    for (Json::ArrayIndex index = 0; index < size; ++index) {
        T element{};
        Value(json[index], element);
        if (Failed()) {
            AddToPath("[" + std::to_string(index) + "]");
            return;
        }
        field.push_back(std::move(element));
    }
}

template <typename T>
void FieldReader::One(const Json::Value& json, std::map<std::string, T>& field)
{
    field.clear();
    if (!Object(json)) {
        return;
    }
    for (auto member = json.begin(); member != json.end() && Key(member.name()); ++member) {
        T element{};
        Value(*member, element);
        if (Failed()) {
            AddToPath("." + member.name());
            return;
        }
        field.emplace(member.name(), std::move(element));
    }
}

template <typename T>
void FieldReader::One(const Json::Value& json, std::optional<T>& field)
{
    field.reset();
    if (!json.isNull()) {
        T value{};
        Value(json, value);
        if (!Failed()) {
            field = std::move(value);
        }
    }
}

template <typename T>
void FieldReader::One(const Json::Value& json, T& field)
{
    if (Object(json)) {
        const Json::Value* const outer = std::exchange(m_Object, &json);
        VisitSennetFields(static_cast<const T*>(nullptr), field, *this);
        m_Object = outer;
    }
}

template <typename T>
Json::Value FieldWriter::Value(const T& field)
{
    if constexpr (std::is_same_v<T, bool>) {
        return field;
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
        return static_cast<Json::Int64>(field);
    } else if constexpr (std::is_integral_v<T>) {
        return static_cast<Json::UInt64>(field);
    } else if constexpr (std::is_floating_point_v<T>) {
        return Double(static_cast<double>(field));
    } else if constexpr (std::is_same_v<T, std::string>) {
        return String(field);
    } else {
        return One(field);
    }
}

template <typename T>
void FieldWriter::Field(const char* name, const T& field)
{
    if (!Failed()) {
        Add(name, field);
        if (Failed()) {
            AddToPath(std::string(".") + name);
        }
    }
}

template <typename T>
void FieldWriter::Add(const char* name, const T& field)
{
    // The value first: it may use m_Object for fields of its own.
    Json::Value value = Value(field);
    (*m_Object)[name] = std::move(value);
}

template <typename T>
void FieldWriter::Add(const char* name, const std::optional<T>& field)
{
    if (field.has_value()) {
        Add(name, *field);
    }
}

template <typename T>
Json::Value FieldWriter::One(const std::vector<T>& field)
{
    Json::Value array(Json::arrayValue);
    for (std::size_t index = 0; index < field.size() && !Failed(); ++index) {
        array.append(Value<T>(field[index]));
        if (Failed()) {
            AddToPath("[" + std::to_string(index) + "]");
        }
    }
    return array;
}

template <typename T>
Json::Value FieldWriter::One(const std::map<std::string, T>& field)
{
    Json::Value object(Json::objectValue);
    for (const auto& [key, element] : field) {
        if (!Key(key)) {
            break;
        }
        object[key] = Value(element);
        if (Failed()) {
            AddToPath("." + key);
            break;
        }
    }
    return object;
}

template <typename T>
Json::Value FieldWriter::One(const std::optional<T>& field)
{
    return field.has_value() ? Value(*field) : Json::Value();
}

template <typename T>
Json::Value FieldWriter::One(const T& field)
{
    Json::Value object(Json::objectValue);
    Json::Value* const outer = std::exchange(m_Object, &object);
    VisitSennetFields(static_cast<const T*>(nullptr), field, *this);
    m_Object = outer;
    return object;
}

} // namespace Internal

// SENNET_EACH(a, b, ...) visits each field.
#define SENNET_EACH(...)                                                                           \
    SENNET_EACH_COUNTED(__VA_ARGS__, 64, 63, 62, 61, 60, 59, 58, 57, 56, 55, 54, 53, 52, 51, 50,   \
                        49, 48, 47, 46, 45, 44, 43, 42, 41, 40, 39, 38, 37, 36, 35, 34, 33, 32,    \
                        31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14,    \
                        13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)                              \
    (__VA_ARGS__)
#define SENNET_EACH_COUNTED(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, _13, _14, _15, _16, \
                            _17, _18, _19, _20, _21, _22, _23, _24, _25, _26, _27, _28, _29, _30,  \
                            _31, _32, _33, _34, _35, _36, _37, _38, _39, _40, _41, _42, _43, _44,  \
                            _45, _46, _47, _48, _49, _50, _51, _52, _53, _54, _55, _56, _57, _58,  \
                            _59, _60, _61, _62, _63, _64, COUNT, ...)                              \
    SENNET_EACH_##COUNT
#define SENNET_EACH_1(field) visitor.Field(#field, value.field);
#define SENNET_EACH_2(field, ...) SENNET_EACH_1(field) SENNET_EACH_1(__VA_ARGS__)
#define SENNET_EACH_3(field, ...) SENNET_EACH_1(field) SENNET_EACH_2(__VA_ARGS__)
#define SENNET_EACH_4(field, ...) SENNET_EACH_1(field) SENNET_EACH_3(__VA_ARGS__)
#define SENNET_EACH_5(field, ...) SENNET_EACH_1(field) SENNET_EACH_4(__VA_ARGS__)
#define SENNET_EACH_6(field, ...) SENNET_EACH_1(field) SENNET_EACH_5(__VA_ARGS__)
#define SENNET_EACH_7(field, ...) SENNET_EACH_1(field) SENNET_EACH_6(__VA_ARGS__)
#define SENNET_EACH_8(field, ...) SENNET_EACH_1(field) SENNET_EACH_7(__VA_ARGS__)
#define SENNET_EACH_9(field, ...) SENNET_EACH_1(field) SENNET_EACH_8(__VA_ARGS__)
#define SENNET_EACH_10(field, ...) SENNET_EACH_1(field) SENNET_EACH_9(__VA_ARGS__)
#define SENNET_EACH_11(field, ...) SENNET_EACH_1(field) SENNET_EACH_10(__VA_ARGS__)
#define SENNET_EACH_12(field, ...) SENNET_EACH_1(field) SENNET_EACH_11(__VA_ARGS__)
#define SENNET_EACH_13(field, ...) SENNET_EACH_1(field) SENNET_EACH_12(__VA_ARGS__)
#define SENNET_EACH_14(field, ...) SENNET_EACH_1(field) SENNET_EACH_13(__VA_ARGS__)
#define SENNET_EACH_15(field, ...) SENNET_EACH_1(field) SENNET_EACH_14(__VA_ARGS__)
#define SENNET_EACH_16(field, ...) SENNET_EACH_1(field) SENNET_EACH_15(__VA_ARGS__)
#define SENNET_EACH_17(field, ...) SENNET_EACH_1(field) SENNET_EACH_16(__VA_ARGS__)
#define SENNET_EACH_18(field, ...) SENNET_EACH_1(field) SENNET_EACH_17(__VA_ARGS__)
#define SENNET_EACH_19(field, ...) SENNET_EACH_1(field) SENNET_EACH_18(__VA_ARGS__)
#define SENNET_EACH_20(field, ...) SENNET_EACH_1(field) SENNET_EACH_19(__VA_ARGS__)
#define SENNET_EACH_21(field, ...) SENNET_EACH_1(field) SENNET_EACH_20(__VA_ARGS__)
#define SENNET_EACH_22(field, ...) SENNET_EACH_1(field) SENNET_EACH_21(__VA_ARGS__)
#define SENNET_EACH_23(field, ...) SENNET_EACH_1(field) SENNET_EACH_22(__VA_ARGS__)
#define SENNET_EACH_24(field, ...) SENNET_EACH_1(field) SENNET_EACH_23(__VA_ARGS__)
#define SENNET_EACH_25(field, ...) SENNET_EACH_1(field) SENNET_EACH_24(__VA_ARGS__)
#define SENNET_EACH_26(field, ...) SENNET_EACH_1(field) SENNET_EACH_25(__VA_ARGS__)
#define SENNET_EACH_27(field, ...) SENNET_EACH_1(field) SENNET_EACH_26(__VA_ARGS__)
#define SENNET_EACH_28(field, ...) SENNET_EACH_1(field) SENNET_EACH_27(__VA_ARGS__)
#define SENNET_EACH_29(field, ...) SENNET_EACH_1(field) SENNET_EACH_28(__VA_ARGS__)
#define SENNET_EACH_30(field, ...) SENNET_EACH_1(field) SENNET_EACH_29(__VA_ARGS__)
#define SENNET_EACH_31(field, ...) SENNET_EACH_1(field) SENNET_EACH_30(__VA_ARGS__)
#define SENNET_EACH_32(field, ...) SENNET_EACH_1(field) SENNET_EACH_31(__VA_ARGS__)
#define SENNET_EACH_33(field, ...) SENNET_EACH_1(field) SENNET_EACH_32(__VA_ARGS__)
#define SENNET_EACH_34(field, ...) SENNET_EACH_1(field) SENNET_EACH_33(__VA_ARGS__)
#define SENNET_EACH_35(field, ...) SENNET_EACH_1(field) SENNET_EACH_34(__VA_ARGS__)
#define SENNET_EACH_36(field, ...) SENNET_EACH_1(field) SENNET_EACH_35(__VA_ARGS__)
#define SENNET_EACH_37(field, ...) SENNET_EACH_1(field) SENNET_EACH_36(__VA_ARGS__)
#define SENNET_EACH_38(field, ...) SENNET_EACH_1(field) SENNET_EACH_37(__VA_ARGS__)
#define SENNET_EACH_39(field, ...) SENNET_EACH_1(field) SENNET_EACH_38(__VA_ARGS__)
#define SENNET_EACH_40(field, ...) SENNET_EACH_1(field) SENNET_EACH_39(__VA_ARGS__)
#define SENNET_EACH_41(field, ...) SENNET_EACH_1(field) SENNET_EACH_40(__VA_ARGS__)
#define SENNET_EACH_42(field, ...) SENNET_EACH_1(field) SENNET_EACH_41(__VA_ARGS__)
#define SENNET_EACH_43(field, ...) SENNET_EACH_1(field) SENNET_EACH_42(__VA_ARGS__)
#define SENNET_EACH_44(field, ...) SENNET_EACH_1(field) SENNET_EACH_43(__VA_ARGS__)
#define SENNET_EACH_45(field, ...) SENNET_EACH_1(field) SENNET_EACH_44(__VA_ARGS__)
#define SENNET_EACH_46(field, ...) SENNET_EACH_1(field) SENNET_EACH_45(__VA_ARGS__)
#define SENNET_EACH_47(field, ...) SENNET_EACH_1(field) SENNET_EACH_46(__VA_ARGS__)
#define SENNET_EACH_48(field, ...) SENNET_EACH_1(field) SENNET_EACH_47(__VA_ARGS__)
#define SENNET_EACH_49(field, ...) SENNET_EACH_1(field) SENNET_EACH_48(__VA_ARGS__)
#define SENNET_EACH_50(field, ...) SENNET_EACH_1(field) SENNET_EACH_49(__VA_ARGS__)
#define SENNET_EACH_51(field, ...) SENNET_EACH_1(field) SENNET_EACH_50(__VA_ARGS__)
#define SENNET_EACH_52(field, ...) SENNET_EACH_1(field) SENNET_EACH_51(__VA_ARGS__)
#define SENNET_EACH_53(field, ...) SENNET_EACH_1(field) SENNET_EACH_52(__VA_ARGS__)
#define SENNET_EACH_54(field, ...) SENNET_EACH_1(field) SENNET_EACH_53(__VA_ARGS__)
#define SENNET_EACH_55(field, ...) SENNET_EACH_1(field) SENNET_EACH_54(__VA_ARGS__)
#define SENNET_EACH_56(field, ...) SENNET_EACH_1(field) SENNET_EACH_55(__VA_ARGS__)
#define SENNET_EACH_57(field, ...) SENNET_EACH_1(field) SENNET_EACH_56(__VA_ARGS__)
#define SENNET_EACH_58(field, ...) SENNET_EACH_1(field) SENNET_EACH_57(__VA_ARGS__)
#define SENNET_EACH_59(field, ...) SENNET_EACH_1(field) SENNET_EACH_58(__VA_ARGS__)
#define SENNET_EACH_60(field, ...) SENNET_EACH_1(field) SENNET_EACH_59(__VA_ARGS__)
#define SENNET_EACH_61(field, ...) SENNET_EACH_1(field) SENNET_EACH_60(__VA_ARGS__)
#define SENNET_EACH_62(field, ...) SENNET_EACH_1(field) SENNET_EACH_61(__VA_ARGS__)
#define SENNET_EACH_63(field, ...) SENNET_EACH_1(field) SENNET_EACH_62(__VA_ARGS__)
#define SENNET_EACH_64(field, ...) SENNET_EACH_1(field) SENNET_EACH_63(__VA_ARGS__)
/// @endcond

} // namespace Velmora
