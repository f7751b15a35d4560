// The other ends of the bus benchmarks, each run in a process of its own.
#pragma once

namespace Benchmarks {

constexpr char kOurs[] = "bench.ours";        // answers on the dispatch thread
constexpr char kMoved[] = "bench.ours.moved"; // answers on a task's thread
constexpr char kRaw[] = "bench.raw";          // the same on raw GDBus
constexpr char kSink[] = "sink";              // the type of a message that wants an empty answer

// Runs the peer or listener that the role names; does not return to an unknown one.
int RunPeer(const char* role);

} // namespace Benchmarks
