// Stands in for the platform's log service where that is not installed. Weak, so that a program
// which defines __dlog_print itself takes over.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include <sys/stat.h>
#include <unistd.h>

#include "TCLog.h"

namespace {

constexpr char kLetters[] = "DIWE";
constexpr int kDebug = 3;
constexpr int kWarning = 5;
constexpr int kError = 6;
constexpr int kNothing = 7;

constexpr char kColourReset[] = "\033[0m";
constexpr std::size_t kTagMax = 64;

// A longer write to a pipe may be torn apart by another writer.
constexpr std::size_t kLineMax = PIPE_BUF;

int ReadThreshold()
{
    const char* wanted = std::getenv("SENNET_LOG_LEVEL"); // NOLINT(concurrency-mt-unsafe)
    if (wanted == nullptr) {
        return kWarning;
    }
    const char* const names[] = {"debug", "info", "warning", "error", "none"};
    for (int i = 0; kDebug + i <= kNothing; ++i) {
        if (std::strcmp(wanted, names[i]) == 0) {
            return kDebug + i;
        }
    }
    return kWarning;
}

// A service manager tells which stream is the journal's by its device and inode.
bool IsJournal()
{
    static const char* const journal =
        std::getenv("JOURNAL_STREAM"); // NOLINT(concurrency-mt-unsafe): once
    struct stat status = {};
    if (journal == nullptr || fstat(STDERR_FILENO, &status) != 0) {
        return false;
    }
    char stream[64];
    std::snprintf(stream, sizeof stream, "%ju:%ju", static_cast<std::uintmax_t>(status.st_dev),
                  static_cast<std::uintmax_t>(status.st_ino));
    return std::strcmp(stream, journal) == 0;
}

// Length of the colour sequence (ESC [ digits m) at the start of the text, 0 if there is none.
std::size_t ColourLength(const char* text)
{
    if (text[0] != '\033' || text[1] != '[') {
        return 0;
    }
    std::size_t length = 2;
    while (std::isdigit(static_cast<unsigned char>(text[length])) != 0 || text[length] == ';') {
        ++length;
    }
    return text[length] == 'm' ? length + 1 : 0;
}

// One line out of any text: colours stay for a terminal only, the newlines at the end go, and every
// other control character becomes a blank, so that no text can forge a second line.
std::size_t CopyAsLine(const char* text, bool colour, char* out, std::size_t room)
{
    std::size_t used = 0;
    while (*text != '\0' && used < room) {
        if (const std::size_t length = ColourLength(text); length > 0) {
            if (colour && length <= room - used) {
                std::memcpy(out + used, text, length);
                used += length;
            }
            text += length;
            continue;
        }
        const bool control = static_cast<unsigned char>(*text) < 0x20 || *text == 0x7f;
        out[used++] = control ? ' ' : *text;
        ++text;
    }
    while (used > 0 && out[used - 1] == ' ') {
        --used;
    }
    return used;
}

// Keeps a standard error whose reader is gone, or a file at its size limit, from ending the
// process: the signals of the failed write are blocked and taken back, unless they were pending
// before.
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

// The priority is one of the four.
int WriteLine(int priority, const char* tag, const char* format, va_list arguments)
{
    char text[kLineMax];
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0) {
        std::snprintf(text, sizeof text, "%s", format); // better than nothing
    }
    char safeTag[kTagMax + 1];
    safeTag[CopyAsLine(tag != nullptr ? tag : "", false, safeTag, kTagMax)] = '\0';

    const bool journal = IsJournal();
    char line[kLineMax];
    int head = 0;
    if (journal) {
        // The journal reads the syslog level of a line from such a prefix (sd-daemon(3)).
        constexpr int levels[] = {7, 6, 4, 3};
        head = std::snprintf(line, sizeof line, "<%d>", levels[priority - kDebug]);
    }
    head += std::snprintf(line + head, sizeof line - static_cast<std::size_t>(head),
                          "%c/%s(%d:%d) ", kLetters[priority - kDebug], safeTag,
                          static_cast<int>(getpid()), static_cast<int>(gettid()));

    auto used = static_cast<std::size_t>(head);
    const bool colour = !journal && isatty(STDERR_FILENO) == 1;
    used += CopyAsLine(text, colour, line + used, sizeof line - used - sizeof kColourReset);
    if (colour) { // a long line has lost its own
        used = static_cast<std::size_t>(
            std::copy(std::begin(kColourReset), std::end(kColourReset) - 1, line + used) - line);
    }
    line[used++] = '\n';

    const WriteSignalsBlocked blocked;
    ssize_t written = 0;
    do {
        written = write(STDERR_FILENO, line, used);
    } while (written < 0 && errno == EINTR);
    return static_cast<int>(written);
}

} // namespace

#pragma GCC visibility push(default)

extern "C" __attribute__((weak)) int __dlog_print(int /*log_id*/, int priority, const char* tag,
                                                  const char* format, ...)
{
    static const int threshold = ReadThreshold();
    priority = std::min(priority, kError);
    if (priority < threshold || format == nullptr) {
        return 0;
    }
    const int error = errno; // a line between a failed call and a look at errno changes nothing
    va_list arguments;
    va_start(arguments, format);
    const int written = WriteLine(priority, tag, format, arguments);
    va_end(arguments);
    errno = error;
    return written;
}

#pragma GCC visibility pop
