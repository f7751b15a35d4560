// SPDX-License-Identifier: MIT
// The peers of the bus benchmarks. Each runs in its own process.
#pragma once

#include <string>

#include <json/json.h>

namespace Benchmarks {

constexpr char kOurs[] = "bench.ours";        // answers on the dispatch thread
constexpr char kMoved[] = "bench.ours.moved"; // answers on a task's thread
constexpr char kRaw[] = "bench.raw";          // the same on raw GDBus
constexpr char kRawPath[] = "/bench/raw/message";
constexpr char kRawMovedPath[] = "/bench/raw/moved"; // an object that answers on another thread
constexpr char kWithJson[] = "json"; // a message type: the raw peer reads and writes the JSON
constexpr char kSink[] = "sink";     // a message type: the reply is empty

// JSON with jsoncpp alone, as a program without the library does it.
Json::Value ReadJson(const char* text);
std::string WriteJson(const Json::Value& value);

// Runs the peer or listener of this role. Returns only if the role is unknown.
int RunPeer(const char* role);

} // namespace Benchmarks
