// SPDX-License-Identifier: MIT
// All commands of the tool. To add one, declare its function here and add its line to kCommands.
#pragma once

#include <cstddef>
#include <limits>

namespace Ctl {

class CommandLine;

struct Command
{
    const char* name;
    const char* arguments; // as the usage line shows them
    const char* summary;
    std::size_t minArguments;
    std::size_t maxArguments;
    int (*run)(CommandLine& line); // returns the exit code, or throws a Failure
};

// Each is in a file of its own in commands/.
int RunBench(CommandLine& line);
int RunEmit(CommandLine& line);
int RunList(CommandLine& line);
int RunListen(CommandLine& line);
int RunMonitor(CommandLine& line);
int RunPing(CommandLine& line);
int RunSend(CommandLine& line);
int RunWait(CommandLine& line);

constexpr std::size_t kAnyNumber = std::numeric_limits<std::size_t>::max();

// In the order of --help.
constexpr Command kCommands[] = {
    {"list", "", "List the services on the bus", 0, 0, &RunList},
    {"send", "DEST [TEXT|-]", "Send a message to a service and show the answer", 1, 2, &RunSend},
    {"listen", "[FROM] SIGNAL...", "Show signals as they arrive, until interrupted", 1, kAnyNumber,
     &RunListen},
    {"emit", "SIGNAL [TEXT|-]", "Broadcast a signal", 1, 2, &RunEmit},
    {"wait", "SERVICE", "Wait until a service is on the bus", 1, 1, &RunWait},
    {"ping", "SERVICE", "Measure the round trip to a service", 1, 1, &RunPing},
    {"monitor", "[SERVICE...]", "Show the messages and signals between services", 0, kAnyNumber,
     &RunMonitor},
    {"bench", "DEST [TEXT|-]", "Measure how fast a service answers", 1, 2, &RunBench},
};

} // namespace Ctl
