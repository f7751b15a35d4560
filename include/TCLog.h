/// @file
/// The log macros and the application name.
///
/// Every line of the library, and of a client that uses these macros, is one call of
/// `__dlog_print` with the log id 0 and the tag "Sennet".
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>

#pragma GCC visibility push(default)

/// The platform's log service. Where the platform has none, the library brings a stand-in as a weak
/// symbol, so that a program that defines this function itself receives every line.
///
/// The stand-in writes one line to standard error and drops lines below its threshold, which is
/// "warning" unless the environment variable `SENNET_LOG_LEVEL` says "debug", "info", "warning",
/// "error" or "none" when the first line is written; one line tells of any other value. Lines with
/// an empty body appear at the threshold "debug" alone. A line is cut at 4,096 bytes, up to which
/// POSIX has a write to a pipe atomic (`PIPE_BUF`). In what a line tells, control and formatting
/// characters become blanks; the colours of the macros appear on a terminal only. `errno` and the
/// signals of the thread stay as they are.
///
/// @param log_id   the log buffer; 0 is the main one
/// @param priority 3 debug, 4 info, 5 warning, 6 error
/// @param tag      who writes
/// @param format   a printf format for what follows
/// @return the number of bytes written, or a negative number; nobody here looks at it
///
/// May be called on any thread.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the platform's
extern "C" int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

namespace Velmora {

/// The application name that stands in brackets in every log line; "nil" until SetAppName() is
/// called. It has no lock: change it before the first thread of the library starts.
extern std::string g_AppName;

/// @return the characters of g_AppName, not a copy; valid until the next SetAppName()
const char* GetProjectName();

/// The same pointer as GetProjectName().
const char* GetAppName();

/// Replaces the application name. Belongs at the start of the process, since every thread that logs
/// reads the name without a lock.
/// @param name copied; null sets "nil"
void SetAppName(const char* name);

namespace Detail {

/// Where the last component of a path begins; evaluated at build time by the log macros.
constexpr std::size_t BaseNameOffset(const char* path)
{
    std::size_t offset = 0;
    for (std::size_t i = 0; path[i] != '\0'; ++i) {
        if (path[i] == '/') {
            offset = i + 1;
        }
    }
    return offset;
}

} // namespace Detail
} // namespace Velmora

#pragma GCC visibility pop

/// The base name of the source file as a pointer into the literal `__FILE__`.
#define VELMORA_LOG_FILE                                                                           \
    (&__FILE__[std::integral_constant<std::size_t,                                                 \
                                      ::Velmora::Detail::BaseNameOffset(__FILE__)>::value])

/// @cond internal
// The body and its arguments arrive as one list. HEAD takes the body off it, to stand in the middle
// of the format; TAIL gives ", arguments", or nothing for a body alone. Up to 14 arguments.
#define VELMORA_LOG_HEAD(body, ...) body
#define VELMORA_LOG_TAIL_NONE(body)
#define VELMORA_LOG_TAIL_SOME(body, ...) , __VA_ARGS__
#define VELMORA_LOG_PICK(a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15, tail,   \
                         ...)                                                                      \
    tail
#define VELMORA_LOG_TAIL(...)                                                                      \
    VELMORA_LOG_PICK(__VA_ARGS__, VELMORA_LOG_TAIL_SOME, VELMORA_LOG_TAIL_SOME,                    \
                     VELMORA_LOG_TAIL_SOME, VELMORA_LOG_TAIL_SOME, VELMORA_LOG_TAIL_SOME,          \
                     VELMORA_LOG_TAIL_SOME, VELMORA_LOG_TAIL_SOME, VELMORA_LOG_TAIL_SOME,          \
                     VELMORA_LOG_TAIL_SOME, VELMORA_LOG_TAIL_SOME, VELMORA_LOG_TAIL_SOME,          \
                     VELMORA_LOG_TAIL_SOME, VELMORA_LOG_TAIL_SOME, VELMORA_LOG_TAIL_SOME,          \
                     VELMORA_LOG_TAIL_NONE, )                                                      \
    (__VA_ARGS__)

#define VELMORA_LOG_LINE(priority, colour, ...)                                                    \
    __dlog_print(0, priority, "Sennet",                                                            \
                 "%s: %s(%d) > \033[" colour "m [%s]" VELMORA_LOG_HEAD(__VA_ARGS__, ) "\033[0m\n", \
                 VELMORA_LOG_FILE, __func__, __LINE__,                                             \
                 ::Velmora::GetProjectName() VELMORA_LOG_TAIL(__VA_ARGS__))
/// @endcond

/// Writes one line: a printf format as a string literal, then its arguments. The line carries the
/// source file, the function, the source line and the application name before the body. The body
/// has no newline of its own; an empty body ("") marks that a place was passed.
#define VELMORA_LOGD(...) VELMORA_LOG_LINE(3, "32", __VA_ARGS__)
/// @copydoc VELMORA_LOGD
#define VELMORA_LOGI(...) VELMORA_LOG_LINE(4, "37", __VA_ARGS__)
/// @copydoc VELMORA_LOGD
#define VELMORA_LOGW(...) VELMORA_LOG_LINE(5, "33", __VA_ARGS__)
/// @copydoc VELMORA_LOGD
#define VELMORA_LOGE(...) VELMORA_LOG_LINE(6, "31", __VA_ARGS__)
/// The warning "NAME is null": how a null argument is refused. Takes the name as a literal.
#define VELMORA_LOG_NULL(name) VELMORA_LOG_LINE(5, "33", "%s is null", name)
