// SPDX-License-Identifier: MIT
// A payload of 100 bytes of JSON, compared with jsoncpp as its manual shows it: each call makes a
// builder and a reader or writer.

#include <memory>
#include <string>

#include <glib.h>
#include <json/json.h>

#include "TCMessage.h"
#include "Table.h"

namespace Benchmarks {

namespace {

// As the library writes it: compact, with sorted keys.
constexpr char kText[] = R"({"code":200,"items":[1,2,3,4],"method":"display.set",)"
                         R"("ok":true,"user":{"id":4711,"name":"the name"}})";
static_assert(sizeof kText - 1 == 100);

struct PlainData
{
    std::string text;
    Json::Value json;
};

void Parse(PlainData& data)
{
    const Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (!reader->parse(data.text.data(), data.text.data() + data.text.size(), &data.json,
                       &errors)) {
        g_error("not JSON: %s", errors.c_str());
    }
}

void Generate(PlainData& data)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    data.text = Json::writeString(builder, data.json);
}

PlainData MakePlain()
{
    PlainData data{kText, {}};
    Parse(data);
    return data;
}

void ParseOurs(benchmark::State& state)
{
    const std::string text = kText;
    for (auto _ : state) {
        const Velmora::TCData data(text);
        benchmark::DoNotOptimize(&data);
    }
}

void ParsePlain(benchmark::State& state)
{
    const std::string text = kText;
    for (auto _ : state) {
        PlainData data{text, {}};
        Parse(data);
        benchmark::DoNotOptimize(&data);
    }
}

void GenerateOurs(benchmark::State& state)
{
    Velmora::TCData data(kText);
    for (auto _ : state) {
        data.Generate();
    }
}

void GeneratePlain(benchmark::State& state)
{
    PlainData data = MakePlain();
    for (auto _ : state) {
        Generate(data);
    }
}

void CopyOurs(benchmark::State& state)
{
    const Velmora::TCData data(kText);
    for (auto _ : state) {
        const Velmora::TCData copy(data);
        benchmark::DoNotOptimize(&copy);
    }
}

// The copy of a payload holds its compact text, so the plain side also writes the text.
void CopyPlain(benchmark::State& state)
{
    const PlainData data = MakePlain();
    for (auto _ : state) {
        PlainData copy = data;
        Generate(copy);
        benchmark::DoNotOptimize(&copy);
    }
}

} // namespace

void AddPayloadRows(Table& table)
{
    table.Add({"payload, parse", 0.5}, ParseOurs, ParsePlain);
    table.Add({"payload, generate", 0.5}, GenerateOurs, GeneratePlain);
    table.Add({"payload, copy", {}}, CopyOurs, CopyPlain);
}

} // namespace Benchmarks
