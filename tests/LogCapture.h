// Takes over the log service for a test program and keeps every line.
#pragma once

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
std::vector<LogLine> Log();

// How many lines of this priority have exactly this body, or, ending in "*", begin with it.
int CountLog(int priority, const std::string& body);
