// SPDX-License-Identifier: MIT
#include "LogCapture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "TCLog.h"

namespace {

std::mutex g_Mutex;
std::vector<LogLine> g_Lines;
std::function<void(const std::string&)> g_OnLog;

} // namespace

// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    const int size = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::function<void(const std::string&)> onLog;
    {
        const std::lock_guard<std::mutex> lock(g_Mutex);
        g_Lines.push_back({log_id, priority, tag, format, text});
        onLog = g_OnLog;
    }
    if (onLog) {
        onLog(text);
    }
    return size;
}

void ForgetLog()
{
    const std::lock_guard<std::mutex> lock(g_Mutex);
    g_Lines.clear();
}

void OnLog(std::function<void(const std::string&)> function)
{
    const std::lock_guard<std::mutex> lock(g_Mutex);
    g_OnLog = std::move(function);
}

std::vector<LogLine> Log()
{
    const std::lock_guard<std::mutex> lock(g_Mutex);
    return g_Lines;
}

int CountLog(int priority, const std::string& body)
{
    const bool prefix = !body.empty() && body.back() == '*';
    const std::string wanted = "[nil]" + (prefix ? body.substr(0, body.size() - 1) : body + "\033");
    const std::lock_guard<std::mutex> lock(g_Mutex);
    return static_cast<int>(std::count_if(g_Lines.begin(), g_Lines.end(), [&](const LogLine& line) {
        return line.priority == priority && line.text.find(wanted) != std::string::npos;
    }));
}
