// SPDX-License-Identifier: MIT
// Replaces the log service of a test program and keeps every line.
#pragma once

#include <functional>
#include <string>
#include <vector>

struct LogLine
{
    int id;
    int priority;
    std::string tag;
    std::string format;
    std::string text;
};

constexpr int kDebug = 3;
constexpr int kInfo = 4;
constexpr int kWarning = 5;
constexpr int kError = 6;

void ForgetLog();

// Calls the function with every new line, on the thread that writes it; null stops this.
void OnLog(std::function<void(const std::string&)> function);
std::vector<LogLine> Log();

// Counts the lines of this priority with exactly this body; if the body ends in "*", those that
// begin with it.
int CountLog(int priority, const std::string& body);
