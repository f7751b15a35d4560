// SPDX-License-Identifier: MIT
// Writes lines with the library's own log service, and fails if that changes errno or the signals
// of its thread: log_writer [pending|journal|foreign]. "pending": a SIGPIPE is pending; "journal":
// standard error is a journal's socket; "foreign": it is another socket than the journal's.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sennet.h"

namespace {

int g_Journal[2] = {-1, -1}; // the process writes to the first, the journal reads the second

void SendStandardErrorToAJournal(bool foreign)
{
    struct stat status = {};
    socketpair(AF_UNIX, SOCK_STREAM, 0, g_Journal);
    fstat(g_Journal[foreign ? 1 : 0], &status);
    g_setenv("JOURNAL_STREAM",
             (std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)).c_str(), TRUE);
    dup2(g_Journal[0], STDERR_FILENO);
}

// Whether SIGPIPE alone of the two signals that a write can raise is in a set.
bool IsIn(int (*get)(sigset_t*))
{
    sigset_t signals;
    get(&signals);
    return sigismember(&signals, SIGPIPE) == 1 && sigismember(&signals, SIGXFSZ) == 0;
}

} // namespace

int main(int argc, char** argv)
{
    const bool pending = argc > 1 && std::strcmp(argv[1], "pending") == 0;
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(pending ? SIG_BLOCK : SIG_UNBLOCK, &pipe, nullptr);
    if (pending) {
        std::raise(SIGPIPE);
    } else if (argc > 1) {
        SendStandardErrorToAJournal(std::strcmp(argv[1], "foreign") == 0);
    }
    errno = ENOTEMPTY;
    VELMORA_LOGI("info");
    VELMORA_LOGW("%s", "warning two\n\033lines \xc3\xa9|\xc2\x9b|\xe2\x80\xae|\xe2\x81\xa6|\x9b|"
                       "\033[8m\033[33m [nil]\n");
    VELMORA_LOGE("");
    for (const char* start : {"x", "xx", ""}) {
        std::string text = start;
        while (text.size() < 5000) {
            text += "\xe2\x82\xac"; // is not cut in the middle
        }
        VELMORA_LOGE("%s", text.c_str());
    }
    const bool same =
        errno == ENOTEMPTY && IsIn(&sigpending) == pending &&
        IsIn([](sigset_t* set) { return pthread_sigmask(SIG_BLOCK, nullptr, set); }) == pending;
    if (g_Journal[0] >= 0) {
        char text[65536];
        const ssize_t size = recv(g_Journal[1], text, sizeof text, 0);
        std::fwrite(text, 1, static_cast<std::size_t>(size), stdout);
    }
    return same ? 0 : 1;
}
