// SPDX-License-Identifier: MIT
// TCData and TCMessage.
#include <cstring>
#include <locale>

#include <pthread.h>

#include "Harness.h"

using namespace Velmora;

namespace {

std::string Nested(std::size_t levels)
{
    std::string text;
    for (std::size_t i = 0; i < levels; ++i) {
        text += "{\"a\":";
    }
    return text + "1" + std::string(levels, '}');
}

void RunOnStackOf(std::size_t kib, std::function<void()> function)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, kib * 1024), 0);
    pthread_t thread{};
    const auto run = [](void* data) -> void* {
        (*static_cast<std::function<void()>*>(data))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &function), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

} // namespace

TEST(Data, TellsJsonFromText)
{
    const std::string deep(100000, '[');
    const struct
    {
        std::string text;
        bool json;
        std::string generated; // the text after Generate
    } cases[] = {
        {R"({ "a" : 1 })", true, R"({"a":1})"},
        {"word", false, "word"},
        {"", false, ""},
        {"{}", true, "{}"},
        {" [ ] ", true, " [ ] "},
        {"12 monkeys", true, "12"},
        {"// c\n{\"a\":1 /* d */}", true, R"({"a":1})"},
        {"\"quoted\"", true, "\"quoted\""},
        {std::string("\"a\0b\"", 5), true, "\"a\\u0000b\""},
        {deep, false, deep},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        ForgetLog();
        TCData data(c.text);
        EXPECT_EQ(CountLog(kInfo, "NOT JSON TYPE MESSAGE!*"), c.json ? 0 : 1);
        EXPECT_EQ(data.GetMessage(), c.text);
        EXPECT_EQ(data.GetError() == "no error", c.json);
        EXPECT_TRUE(c.json || data.m_Json.isNull());
        EXPECT_FALSE(data.m_Json.hasComment(Json::commentBefore));
        const TCData copy(data);
        EXPECT_EQ(copy.GetString(), c.generated);
        data.Generate();
        EXPECT_EQ(data.GetMessage(), c.generated);

        TCData scalar("5");
        EXPECT_EQ(scalar.SetMessage(c.text), c.json); // replaces a scalar, too
        EXPECT_EQ(scalar.GetString(), c.text);
    }
}

TEST(Data, GettersFollowTheSideThatLeads)
{
    TCData data;
    EXPECT_EQ(data.GetMessage(), "");
    EXPECT_EQ(data.GetError(), "no error");
    data.m_Json["k"] = "v";
    data.m_Json["k"].setComment(std::string("// of a client's own reader"), Json::commentBefore);
    const TCData& constant = data;
    EXPECT_EQ(constant.GetMessage(), "<<WARN: JSON TYPE MESSAGE, GENERATE STRING FIRST>>");
    EXPECT_EQ(constant.GetString(), R"({"k":"v"})");
    EXPECT_EQ(constant.GetMessage(), "<<WARN: JSON TYPE MESSAGE, GENERATE STRING FIRST>>");
    EXPECT_EQ(data.GetMessage(), R"({"k":"v"})");
    EXPECT_EQ(constant.GetMessage(), R"({"k":"v"})");

    data.m_Json["k"] = 2;
    EXPECT_TRUE(data.Parse()); // does nothing: there is a JSON value
    EXPECT_EQ(data.GetMessage(), R"({"k":"v"})");
    data.Generate();
    EXPECT_EQ(data.GetMessage(), R"({"k":2})");
}

TEST(Data, CopyNormalisesAndAssignmentDoesNot)
{
    TCData spaced(R"({ "a" : 1 })");
    TCData failed("no json");
    const std::string report = failed.GetError();
    EXPECT_NE(report, "no error");
    EXPECT_EQ(TCData(failed).GetError(), "no error");
    failed = spaced;
    EXPECT_EQ(failed.GetMessage(), R"({ "a" : 1 })");
    EXPECT_EQ(failed.GetError(), report);
    failed = TCData("other");
    EXPECT_EQ(failed.GetMessage(), "other");
    EXPECT_TRUE(failed.m_Json.isNull());
    EXPECT_EQ(failed.GetError(), report);
    failed = *&failed;
    EXPECT_EQ(failed.GetMessage(), "other");
}

TEST(Data, IsReadNoDeeperThanTheStackOfTheThreadAllows)
{
    RunOnStackOf(4096, [] { // 3 MiB are in use
        volatile char taken[3072 * 1024] = {1};
        EXPECT_TRUE(TCData(Nested(400)).m_Json.isNull() && taken[0] == 1);
    });
    const struct
    {
        std::size_t stack, json, text; // KiB, and levels that are read and that are not
    } cases[] = {{8192, 500, 1001}, {2048, 250, 1000}, {512, 20, 1000}, {128, 20, 1000}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stack);
        RunOnStackOf(c.stack, [&c] {
            TCData data(Nested(c.json));
            EXPECT_FALSE(data.m_Json.isNull());
            EXPECT_EQ(TCData(data).GetString(), Nested(c.json));
            EXPECT_FALSE(data.SetMessage(Nested(c.text)));
            EXPECT_EQ(data.GetError(), "Exceeded stackLimit in readValue().");
        });
    }
}

TEST(Data, TellsOnceThatTheLocaleMakesItLoseFractions)
{
    struct Comma : std::numpunct<char>
    {
        char do_decimal_point() const override { return ','; }
    };
    EXPECT_EQ(TCData("[0.5]").m_Json[0], 0.5);
    EXPECT_EQ(CountLog(kError, "the global C++ locale*"), 0);
    const std::locale before =
        std::locale::global(std::locale(std::locale::classic(), new Comma)); // owned by the locale
    for (int i = 0; i < 2; ++i) {
        EXPECT_NE(TCData("[0.5]").m_Json[0], 0.5);
        EXPECT_EQ(CountLog(kError, "the global C++ locale*"), 1);
    }
    std::locale::global(before);
}

TEST(Message, OwnsACopyOfItsBuffer)
{
    unsigned char bytes[] = {1, 2, 3};
    unsigned char* view = bytes;
    unsigned char* copy = bytes;
    TCMessage message;
    EXPECT_EQ(message.CopyBuffer(&copy), 0U);
    EXPECT_EQ(copy, bytes);
    message.SetBuffer(bytes, 3);
    bytes[0] = 9;
    EXPECT_EQ(message.GetBuffer(view), 3U);
    EXPECT_EQ(view[0], 1);
    message.SetBuffer(view + 1, 2); // from its own buffer
    EXPECT_EQ(message.CopyBuffer(nullptr), 0U);
    ASSERT_EQ(message.CopyBuffer(&copy), 2U);
    EXPECT_EQ(std::memcmp(copy, "\2\3", 2), 0);
    delete[] copy;

    message.m_Code = 0x123456789ULL;
    message.m_Type = "type";
    message.m_Json["a"] = 1;
    TCMessage assigned;
    assigned.SetBuffer(bytes, 3);
    assigned = message;
    TCMessage* const targets[] = {new TCMessage(message), &assigned};
    for (TCMessage* target : targets) {
        EXPECT_EQ(target->m_Code, 0x123456789ULL);
        EXPECT_EQ(target->m_Type, "type");
        EXPECT_EQ(static_cast<const TCMessage*>(target)->GetMessage(), R"({"a":1})");
        unsigned char* own = nullptr;
        EXPECT_EQ(target->GetBuffer(own), 2U);
        EXPECT_NE(own, view);
    }
    delete targets[0];

    assigned = TCMessage();
    EXPECT_EQ(assigned.GetBuffer(view), 0U);
    EXPECT_EQ(view, nullptr);
    ForgetLog();
    message.SetBuffer(nullptr, 5);
    EXPECT_EQ(message.GetBuffer(view), 0U);
    EXPECT_EQ(CountLog(kWarning, "data is null"), 1);
}
