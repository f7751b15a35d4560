// SPDX-License-Identifier: MIT
/// @file
/// The log macros and the application name.
///
/// Every line of the library, and of a client that uses these macros, is one call of
/// `__dlog_print` with the log id 0 and the tag "Sennet".
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>

#include "SennetApi.h"

/// The platform's log service. Where the platform has none, the library brings a stand-in as a weak
/// symbol, so that a program that defines this function itself receives every line.
///
/// The stand-in writes each line to standard error. The environment variable `SENNET_LOG_LEVEL`
/// sets the lowest priority that it writes: "debug", "info", "warning" (the default), "error" or
/// "none". It is read at the first line; one line reports any other value. Lines with an empty body
/// appear at "debug" only. A line is cut at 4,096 bytes (`PIPE_BUF`), because POSIX writes no more
/// to a pipe in one piece. In the text, control and formatting characters become blanks. The
/// colours of the macros appear on a terminal only. `errno` and the signals of the thread do not
/// change.
///
/// Any thread may call this function.
/// @param log_id   the log buffer; 0 is the main one
/// @param priority 3 debug, 4 info, 5 warning, 6 error
/// @param tag      the component that writes
/// @param format   a printf format for the other arguments
/// @return the number of bytes written, or a negative number; the library ignores it
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the platform's
extern "C" SENNET_API int __dlog_print(int log_id, int priority, const char* tag,
                                       const char* format, ...)
    __attribute__((format(printf, 4, 5)));

namespace Velmora {

/// The application name, printed in brackets in every log line. It is "nil" until SetAppName() is
/// called. There is no lock: change it before the first thread of the library starts.
SENNET_API extern std::string g_AppName;

/// @return the characters of g_AppName, not a copy; valid until the next SetAppName()
SENNET_API const char* GetProjectName();

/// Same as GetProjectName().
SENNET_API const char* GetAppName();

/// Sets the application name. Call this at the start of the process, see g_AppName.
/// @param name copied; null sets "nil"
SENNET_API void SetAppName(const char* name);

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

/// The base name of the source file: a pointer into the literal `__FILE__`.
#define VELMORA_LOG_FILE                                                                           \
    (&__FILE__[std::integral_constant<std::size_t,                                                 \
                                      ::Velmora::Detail::BaseNameOffset(__FILE__)>::value])

/// @cond internal
// The body and its arguments come as one list. HEAD is the body, which goes into the middle of the
// format. TAIL is ", arguments", or nothing if there are none. Up to 14 arguments.
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

/// Writes one line. The arguments are a printf format as a string literal, then its values. The
/// line has the source file, the function, the source line and the application name before this
/// body. Do not end the body with a newline. An empty body ("") only shows that the place was
/// reached.
#define VELMORA_LOGD(...) VELMORA_LOG_LINE(3, "32", __VA_ARGS__)
/// @copydoc VELMORA_LOGD
#define VELMORA_LOGI(...) VELMORA_LOG_LINE(4, "37", __VA_ARGS__)
/// @copydoc VELMORA_LOGD
#define VELMORA_LOGW(...) VELMORA_LOG_LINE(5, "33", __VA_ARGS__)
/// @copydoc VELMORA_LOGD
#define VELMORA_LOGE(...) VELMORA_LOG_LINE(6, "31", __VA_ARGS__)
/// Writes the warning "NAME is null", for an argument that must not be null.
#define VELMORA_LOG_NULL(name) VELMORA_LOG_LINE(5, "33", "%s is null", name)
