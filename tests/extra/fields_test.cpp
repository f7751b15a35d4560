// SPDX-License-Identifier: MIT
// Structs to messages and back, and what a peer may send instead.
#include <cmath>
#include <functional>

#include <gtest/gtest.h>

#include "sennet-extra.h"

namespace Weather {

struct Sensor
{
    std::string name;
    std::uint8_t channel = 0;
    std::vector<Sensor> parts; // of its own kind
};
SENNET_FIELDS(Sensor, name, channel, parts)

struct Reading
{
    double celsius = 0;
    std::int64_t when = 0;
    std::vector<std::string> tags;
    bool valid = false;
    std::optional<Sensor> sensor;
    std::map<std::string, std::vector<int>> histogram;
    std::uint64_t big = 0;
    float low = 0;
    std::vector<bool> flags;
    std::vector<std::optional<int>> gaps;
};
SENNET_FIELDS(Reading, celsius, when, tags, valid, sensor, histogram, big, low, flags, gaps)

struct Options
{
    std::optional<int> one, other;
};
SENNET_FIELDS(Options, one, other)

struct Wide
{
    int a1 = 1, a2 = 2, a3 = 3, a4 = 4, a5 = 5, a6 = 6, a7 = 7, a8 = 8, b1 = 9, b2 = 10, b3 = 11,
        b4 = 12, b5 = 13, b6 = 14, b7 = 15, b8 = 16, c1 = 17, c2 = 18, c3 = 19, c4 = 20, c5 = 21,
        c6 = 22, c7 = 23, c8 = 24, d1 = 25, d2 = 26, d3 = 27, d4 = 28, d5 = 29, d6 = 30, d7 = 31,
        d8 = 32, e1 = 33;
};
SENNET_FIELDS(Wide, a1, a2, a3, a4, a5, a6, a7, a8, b1, b2, b3, b4, b5, b6, b7, b8, c1, c2, c3, c4,
              c5, c6, c7, c8, d1, d2, d3, d4, d5, d6, d7, d8, e1)

} // namespace Weather

using namespace Weather;
using Velmora::TCMessage;

namespace {

constexpr char kGood[] =
    R"({"big":18446744073709551615,"celsius":21.5,"flags":[true,false],"gaps":[1,null],"histogram":{"a":[1,2]},"low":0.5,"sensor":{"channel":7,"name":"s","parts":[{"channel":1,"name":"p","parts":[]}]},"tags":["x","y"],"valid":true,"when":-5})";

// The text with one part replaced.
TCMessage Changed(const std::string& part, const std::string& by)
{
    std::string text = kGood;
    const std::size_t place = text.find(part);
    EXPECT_NE(place, std::string::npos) << part;
    text.replace(place, part.size(), by);
    TCMessage message;
    message.SetMessage(text);
    return message;
}

} // namespace

TEST(FieldsTest, WhatIsWrittenIsReadAgain)
{
    TCMessage message;
    message.SetMessage(kGood);
    Reading reading;
    std::string why;
    ASSERT_TRUE(Velmora::Read(message, reading, &why)) << why;
    EXPECT_EQ(reading.when, -5);
    EXPECT_EQ(reading.big, ~std::uint64_t{0});
    EXPECT_EQ(reading.sensor->parts[0].name, "p");
    EXPECT_EQ(reading.histogram["a"], (std::vector<int>{1, 2}));
    EXPECT_FALSE(reading.gaps[1].has_value());
    TCMessage again;
    again.m_Code = 3;
    ASSERT_TRUE(Velmora::Write(reading, again, &why)) << why;
    EXPECT_EQ(again.GetMessage(), kGood);
    EXPECT_EQ(again.m_Code, 3U);

    Options options{1, 2};
    TCMessage empty;
    ASSERT_TRUE(Velmora::Write(Options(), empty));
    EXPECT_EQ(empty.GetMessage(), "{}");
    ASSERT_TRUE(Velmora::Read(empty, options));
    EXPECT_FALSE(options.one.has_value() || options.other.has_value());
    ASSERT_TRUE(Velmora::Write(Wide(), message));
    EXPECT_EQ(message.m_Json.size(), 33U);
    EXPECT_EQ(message.m_Json["e1"], 33);
    ASSERT_TRUE(Velmora::Read(Changed("7,", "7.0,"), reading)); // without a fraction
}

TEST(FieldsTest, ReadTellsWhatDoesNotFit)
{
    const struct
    {
        const char *part, *by, *why;
    } cases[] = {
        {"21.5", "\"x\"", "celsius: not a number"},
        {"21.5", "null", "celsius: not a number"},
        {"-5", "1.5", "when: not an integer"},
        {"-5", "9223372036854775808", "when: out of range"},
        {"18446744073709551615", "-1", "big: out of range"},
        {"18446744073709551615", "true", "big: not an integer"},
        {"0.5", "1e300", "low: out of range"},
        {"\"y\"", "5", "tags[1]: not a string"},
        {"[\"x\",\"y\"]", "{}", "tags: not an array"},
        {"\"valid\":true,", "", "valid: missing"},
        {"true,\"when", "1,\"when", "valid: not a bool"},
        {":7", ":256", "sensor.channel: out of range"},
        {"\"p\"", "[]", "sensor.parts[0].name: not a string"},
        {"[1,2]", "[1,[]]", "histogram.a[1]: not an integer"},
        {"{\"a\":[1,2]}", "[]", "histogram: not a JSON object"},
        {"null]", "\"\"]", "gaps[1]: not an integer"},
        {"\"y\"", R"("\udc00")", "tags[1]: not UTF-8, or with a NUL"},
        {"\"p\"", R"("p\u0000")", "sensor.parts[0].name: not UTF-8, or with a NUL"},
        {"{\"a\":", R"({"\udc00":)", "histogram: has a key that is not UTF-8, or with a NUL"},
    };
    for (const auto& c : cases) {
        Reading reading;
        reading.when = 42;
        std::string why;
        EXPECT_FALSE(Velmora::Read(Changed(c.part, c.by), reading, &why)) << c.by;
        EXPECT_EQ(why, c.why);
        EXPECT_EQ(reading.when, 42);
    }
    Reading reading;
    for (const char* text : {"", "[]", "5", "\"x\"", "null", "no JSON"}) {
        TCMessage message;
        message.SetMessage(text);
        std::string why;
        EXPECT_FALSE(Velmora::Read(message, reading, &why));
        EXPECT_EQ(why, "not a JSON object");
        EXPECT_FALSE(Velmora::Read(message, reading));
    }
}

TEST(FieldsTest, WriteRefusesWhatJsonCannotSay)
{
    const std::pair<std::function<void(Reading&)>, const char*> cases[] = {
        {[](Reading& r) { r.celsius = NAN; }, "celsius: not a finite number"},
        {[](Reading& r) { r.low = INFINITY; }, "low: not a finite number"},
        {[](Reading& r) {
             r.tags = {"a", "\xff"};
         },
         "tags[1]: not UTF-8, or with a NUL"},
        {[](Reading& r) {
             r.sensor = Sensor{std::string("a\0b", 3), 0, {}};
         },
         "sensor.name: not UTF-8, or with a NUL"},
        {[](Reading& r) { r.histogram["\xff"]; },
         "histogram: has a key that is not UTF-8, or with a NUL"},
    };
    for (const auto& [spoil, expected] : cases) {
        Reading reading;
        spoil(reading);
        TCMessage message;
        message.SetMessage("before");
        std::string why;
        EXPECT_FALSE(Velmora::Write(reading, message, &why));
        EXPECT_EQ(why, expected);
        EXPECT_EQ(message.GetMessage(), "before");
    }
}
