// Takes over the log service for a test program and keeps every line.
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

// Called with every line from now on, on its thread; null ends it.
void OnLog(std::function<void(const std::string&)> function);
std::vector<LogLine> Log();

// How many lines of this priority have exactly this body, or, ending in "*", begin with it.
int CountLog(int priority, const std::string& body);
