// SPDX-License-Identifier: MIT
// Counts words on a task while the main thread goes on reading: no class, no event, no bus.
#include <cstdio>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

#include "sennet.h"

using namespace Velmora;

int main()
{
    SetAppName("background");
    std::map<std::string, int> counts; // used on the task's thread only, so it needs no lock
    TCScope<TCTask> task("counter");
    if (!task) {
        return 1;
    }
    for (std::string line; std::getline(std::cin, line);) {
        const auto count = [&counts, line] {
            std::istringstream words(line);
            for (std::string word; words >> word;) {
                ++counts[word];
            }
        };
        if (!Run(&*task, count)) {
            return 1; // the queue is full
        }
    }
    // Runs after the queued callables, when all lines are counted.
    const auto times = RunAndWait(&*task, [&counts] { return counts["the"]; });
    std::printf("\"the\" %d times\n", times.value_or(0));
    return 0;
}
