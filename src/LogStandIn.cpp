// SPDX-License-Identifier: MIT
// The stand-in for the platform's log service, where that is not installed. Weak, so that a program
// can define __dlog_print itself.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "TCLog.h"

namespace {

constexpr int kDebug = 3;
constexpr int kWarning = 5;
constexpr int kError = 6;

// By priority, beginning with debug.
constexpr std::string_view kNames[] = {"debug", "info", "warning", "error", "none"};
constexpr std::string_view kColours[] = {"\033[32m", "\033[37m", "\033[33m", "\033[31m"};
constexpr char kLetters[] = "DIWE";
constexpr int kSyslogLevels[] = {7, 6, 4, 3};

constexpr std::string_view kColourReset = "\033[0m";
constexpr std::size_t kTagMax = 64;

// A longer write to a pipe may be mixed with another writer's.
constexpr std::size_t kLineMax = PIPE_BUF;

// The service manager passes the device and the inode of the journal's stream, a socket. Processes
// whose standard error is another stream inherit the variable as well.
bool IsJournal()
{
    static const char* const journal =
        std::getenv("JOURNAL_STREAM"); // NOLINT(concurrency-mt-unsafe): once
    struct stat status = {};
    if (journal == nullptr || fstat(STDERR_FILENO, &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return false;
    }
    char stream[64];
    std::snprintf(stream, sizeof stream, "%ju:%ju", static_cast<std::uintmax_t>(status.st_dev),
                  static_cast<std::uintmax_t>(status.st_ino));
    return std::string_view(stream) == journal;
}

// Removes the prefix from the text; returns whether it was there.
bool Skip(std::string_view& text, std::string_view prefix)
{
    const bool found = text.substr(0, prefix.size()) == prefix;
    text.remove_prefix(found ? prefix.size() : 0);
    return found;
}

// The parts of a line of the log macros. The macros write only two escape sequences: the colour of
// the level, and the reset at the end. All other text may come from anybody.
struct MacroLine
{
    MacroLine(std::string_view text, int priority) : place(text)
    {
        const std::size_t escape = std::min(text.find('\033'), text.size());
        std::string_view rest = text.substr(escape);
        std::string_view named = rest;
        if (!Skip(named, kColours[priority - kDebug]) || !Skip(named, " [") ||
            !Skip(named, Velmora::GetProjectName()) || !Skip(named, "]")) {
            return;
        }
        place = text.substr(0, escape);
        colour = kColours[priority - kDebug];
        rest.remove_prefix(colour.size());
        for (const std::string_view end : {std::string_view("\n"), kColourReset}) {
            if (rest.size() >= end.size() && rest.substr(rest.size() - end.size()) == end) {
                rest.remove_suffix(end.size()); // missing in a line that was cut
            }
        }
        body = rest;
        isEmpty = body.data() + body.size() == named.data();
    }

    std::string_view place; // the whole line if it is not from the macros
    std::string_view colour;
    std::string_view body; // from the application name on
    bool isEmpty = false;  // nothing follows the name
};

// Whether a terminal would take the character for a command, or show other characters in another
// order or on another line.
bool IsUnsafe(gunichar character)
{
    switch (g_unichar_type(character)) {
    case G_UNICODE_CONTROL:
    case G_UNICODE_FORMAT: // among them those that change the direction of writing
    case G_UNICODE_LINE_SEPARATOR:
    case G_UNICODE_PARAGRAPH_SEPARATOR:
        return true;
    default:
        return false;
    }
}

// Builds one line in a buffer that keeps room for its end.
class Line
{
public:
    // Without a change.
    void Add(std::string_view text)
    {
        if (text.size() <= kRoom - m_Size) {
            m_Size += text.copy(m_Text + m_Size, text.size());
        }
    }

    // With a blank for each unsafe character, so that no text can forge a second line, or colour or
    // hide parts of this one. What does not fit is cut off.
    void AddSafely(std::string_view text)
    {
        while (!text.empty()) {
            gunichar character =
                g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
            std::size_t length = 1;
            if (character <= kLastCharacter) {
                length = static_cast<std::size_t>(g_utf8_next_char(text.data()) - text.data());
            } else { // not UTF-8: some terminals take single bytes for control characters
                character = static_cast<unsigned char>(text[0]);
            }
            if (length > kRoom - m_Size) {
                return;
            }
            Add(IsUnsafe(character) ? " " : text.substr(0, length));
            text.remove_prefix(length);
        }
    }

    std::string_view End(std::string_view end)
    {
        while (m_Size > 0 && m_Text[m_Size - 1] == ' ') {
            --m_Size;
        }
        m_Size += end.copy(m_Text + m_Size, end.size());
        m_Text[m_Size++] = '\n';
        return {m_Text, m_Size};
    }

private:
    static constexpr gunichar kLastCharacter = 0x10ffff;
    static constexpr std::size_t kRoom = kLineMax - kColourReset.size() - 1;

    char m_Text[kLineMax];
    std::size_t m_Size = 0; // at most kRoom, until the end
};

// Blocks the signals of a failed write, and takes them back unless they were pending before. A
// standard error without a reader, or a file at its size limit, would otherwise end the process.
class WriteSignalsBlocked
{
public:
    WriteSignalsBlocked()
    {
        sigset_t pending;
        sigpending(&pending);
        sigset_t blocked;
        sigemptyset(&blocked);
        sigemptyset(&m_Caused);
        for (const int signal : {SIGPIPE, SIGXFSZ}) {
            sigaddset(&blocked, signal);
            if (sigismember(&pending, signal) == 0) {
                sigaddset(&m_Caused, signal);
            }
        }
        pthread_sigmask(SIG_BLOCK, &blocked, &m_Before);
    }
    ~WriteSignalsBlocked()
    {
        const timespec now = {0, 0};
        while (sigtimedwait(&m_Caused, nullptr, &now) > 0 || errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &m_Before, nullptr);
    }
    WriteSignalsBlocked(const WriteSignalsBlocked&) = delete;
    WriteSignalsBlocked& operator=(const WriteSignalsBlocked&) = delete;

private:
    sigset_t m_Caused;
    sigset_t m_Before;
};

class ErrnoKept
{
public:
    ErrnoKept() = default;
    ~ErrnoKept() { errno = m_Error; }
    ErrnoKept(const ErrnoKept&) = delete;
    ErrnoKept& operator=(const ErrnoKept&) = delete;

private:
    const int m_Error = errno;
};

int WriteLine(int priority, const char* tag, const MacroLine& parts)
{
    const bool journal = IsJournal();
    const bool colour = !journal && !parts.colour.empty() && isatty(STDERR_FILENO) == 1;
    char number[64];
    Line line;
    if (journal) { // it reads the syslog level of a line from such a prefix, see sd-daemon(3)
        std::snprintf(number, sizeof number, "<%d>", kSyslogLevels[priority - kDebug]);
        line.Add(number);
    }
    line.Add({&kLetters[priority - kDebug], 1});
    line.Add("/");
    line.AddSafely(std::string_view(tag != nullptr ? tag : "").substr(0, kTagMax));
    std::snprintf(number, sizeof number, "(%d:%d) ", static_cast<int>(getpid()),
                  static_cast<int>(gettid()));
    line.Add(number);
    line.AddSafely(parts.place);
    line.Add(colour ? parts.colour : "");
    line.AddSafely(parts.body);
    const std::string_view text = line.End(colour ? kColourReset : "");

    const WriteSignalsBlocked blocked;
    ssize_t written = 0;
    do {
        written = write(STDERR_FILENO, text.data(), text.size());
    } while (written < 0 && errno == EINTR);
    return static_cast<int>(written);
}

int ReadThreshold()
{
    const char* const wanted =
        std::getenv("SENNET_LOG_LEVEL"); // NOLINT(concurrency-mt-unsafe): once
    if (wanted == nullptr) {
        return kWarning;
    }
    const auto* const name = std::find(std::begin(kNames), std::end(kNames), wanted);
    if (name != std::end(kNames)) {
        return kDebug + static_cast<int>(name - std::begin(kNames));
    }
    char text[256];
    std::snprintf(text, sizeof text,
                  "SENNET_LOG_LEVEL is none of debug, info, warning, error and none, and so "
                  "counts as warning: \"%s\"",
                  wanted);
    WriteLine(kWarning, "Sennet", {text, kWarning});
    return kWarning;
}

} // namespace

extern "C" __attribute__((weak)) int __dlog_print(int /*log_id*/, int priority, const char* tag,
                                                  const char* format, ...)
{
    const ErrnoKept kept; // a log line may come before its caller looks at errno
    static const int threshold = ReadThreshold();
    priority = std::min(priority, kError);
    if (priority < threshold || format == nullptr) {
        return 0;
    }
    char text[kLineMax];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): a false positive
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0) {
        std::snprintf(text, sizeof text, "%s", format); // better than no line
    }
    va_end(arguments);
    const MacroLine parts(text, priority);
    if (parts.isEmpty && threshold > kDebug) { // it only shows that a place was reached
        return 0;
    }
    return WriteLine(priority, tag, parts);
}
