// SPDX-License-Identifier: MIT
#include "LibraryErrors.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include <dlfcn.h>
#include <glib.h>

#include "TCLog.h"

namespace {

constexpr int kErrorPriority = 6;

std::mutex g_Mutex;
std::string g_LastError; // under g_Mutex

// Keeps what is between the first `prefix` and the last `suffix`, which a truncated line does not
// have. A line without the prefix stays as it is.
void Unwrap(std::string& text, const std::string& prefix, const std::string& suffix)
{
    const std::size_t begin = text.find(prefix);
    if (begin != std::string::npos) {
        text.erase(0, begin + prefix.size());
        text.resize(std::min(text.size(), text.rfind(suffix)));
    }
}

void KeepError(std::string line)
{
    Unwrap(line, "[sennetctl]", "\033[0m");  // place in the source, and colour
    Unwrap(line, "sync message call(", " "); // ends with the number of the GError
    Unwrap(line, "GDBus.Error:", "");        // what GDBus adds to an error of the bus
    if (!line.empty()) {                     // the destruction of a lock logs an empty error line
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

// Receives every log line of the library. Passes it on to the real log service unless the user has
// turned the log off.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the platform's
extern "C" int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    static const auto logService =
        reinterpret_cast<decltype(&__dlog_print)>(dlsym(RTLD_NEXT, "__dlog_print"));
    static const bool wanted = g_strcmp0(g_getenv("SENNET_LOG_LEVEL"), "none") != 0;
    if (priority < kErrorPriority && !wanted) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const std::string line = Format(format, arguments);
    va_end(arguments);
    if (priority >= kErrorPriority) {
        KeepError(line);
    }
    return wanted ? logService(log_id, priority, tag, "%s", line.c_str()) : 0;
}

namespace Ctl {

std::string LastLibraryError()
{
    const std::lock_guard<std::mutex> lock(g_Mutex);
    return g_LastError;
}

Failure SendFailure(const std::string& service)
{
    const std::string reason = LastLibraryError();
    return reason.find("Error.ServiceUnknown") != std::string::npos
               ? NoService(service)
               : Failure(kFailed, service + ": " + reason);
}

} // namespace Ctl
