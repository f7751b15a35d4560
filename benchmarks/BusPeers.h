// The other ends of the bus benchmarks, each run in a process of its own.
#pragma once

#include <string>

#include <json/json.h>

namespace Benchmarks {

constexpr char kOurs[] = "bench.ours";        // answers on the dispatch thread
constexpr char kMoved[] = "bench.ours.moved"; // answers on a task's thread
constexpr char kRaw[] = "bench.raw";          // the same on raw GDBus
constexpr char kRawPath[] = "/bench/raw/message";
constexpr char kRawMovedPath[] = "/bench/raw/moved"; // its object that answers on another thread
constexpr char kWithJson[] = "json"; // the type of a message that the raw peer reads and writes out
constexpr char kSink[] = "sink";     // the type of a message that wants an empty answer

// JSON with jsoncpp alone, as a client without the library does it.
Json::Value ReadJson(const char* text);
std::string WriteJson(const Json::Value& value);

// Runs the peer or listener that the role names; does not return to an unknown one.
int RunPeer(const char* role);

} // namespace Benchmarks
