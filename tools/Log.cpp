#include "Log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include <dlfcn.h>
#include <glib.h>

#include "TCLog.h"

namespace {

constexpr int kError = 6;

std::mutex g_Mutex;
std::string g_LastError; // under g_Mutex

// Takes off what stands before and behind it; behind it nothing stands in a line that was cut.
void Unwrap(std::string& text, const std::string& before, const std::string& behind)
{
    const std::size_t begin = text.find(before);
    if (begin != std::string::npos) {
        text.erase(0, begin + before.size());
        text.resize(std::min(text.size(), text.rfind(behind)));
    }
}

void Note(std::string line)
{
    Unwrap(line, "[sennetctl]", "\033[0m");
    Unwrap(line, "sync message call(", " "); // an error of GDBus, and behind it its number
    Unwrap(line, "GDBus.Error:", "");
    if (!line.empty()) { // as at the end of a lock
        const std::lock_guard<std::mutex> lock(g_Mutex);
        g_LastError = std::move(line);
    }
}

std::string Format(const char* format, va_list arguments)
{
    char text[4096];
    std::vsnprintf(text, sizeof text, format, arguments);
    return text;
}

} // namespace

// Takes every line of the library. Those that the user wants to see go on to the log service.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the platform's
extern "C" int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    static const auto logService =
        reinterpret_cast<decltype(&__dlog_print)>(dlsym(RTLD_NEXT, "__dlog_print"));
    static const bool wanted = g_strcmp0(g_getenv("SENNET_LOG_LEVEL"), "none") != 0;
    if (priority < kError && !wanted) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const std::string line = Format(format, arguments);
    va_end(arguments);
    if (priority >= kError) {
        Note(line);
    }
    return wanted ? logService(log_id, priority, tag, "%s", line.c_str()) : 0;
}

namespace Ctl {

std::string LastError()
{
    const std::lock_guard<std::mutex> lock(g_Mutex);
    return g_LastError;
}

} // namespace Ctl
