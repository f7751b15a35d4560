// The wake-up pipe of a queue: one byte a queued event.
#include "TCEventIO.h"

#include <atomic>
#include <cerrno>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace Velmora {

namespace {

const auto kPageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));

// How many forks lie between this process and the first one. A child shares the pipes of its
// parent's queues, whose bytes only the parent may write and read.
std::atomic<std::uint8_t> g_Forks{0};
[[maybe_unused]] const int g_CountForks = pthread_atfork(nullptr, nullptr, [] { ++g_Forks; });

// A process that has closed its standard streams would get their numbers here, and whatever it
// writes to standard error, log lines above all, would land in the pipe.
bool MoveAboveStandardStreams(int& descriptor)
{
    if (descriptor > STDERR_FILENO) {
        return true;
    }
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved < 0) {
        return false;
    }
    close(descriptor);
    descriptor = moved;
    return true;
}

} // namespace

bool TCEventIO::m_OpenPipe()
{
    if (pipe2(m_PipeFileDes, O_CLOEXEC) != 0) {
        VELMORA_LOGE("Create pipe fail!");
        return false;
    }
    m_PipeOpen = true;
    if (!MoveAboveStandardStreams(m_PipeFileDes[0]) ||
        !MoveAboveStandardStreams(m_PipeFileDes[1])) {
        VELMORA_LOGE("Create pipe fail!");
        return false;
    }
    fcntl(m_PipeFileDes[0], F_SETFL, O_NONBLOCK);
    m_UnreadBytes = 0;
    m_PipeForks = g_Forks;
    return true;
}

bool TCEventIO::m_OwnsPipe() const
{
    return m_PipeForks == g_Forks;
}

void TCEventIO::m_CountReadByte()
{
    if (m_UnreadBytes > 0) { // a byte that this queue has not written, but a forked child
        --m_UnreadBytes;
    }
}

// Whether a blocking write cannot block, told from what was written and read alone.
//
// The kernel fills a pipe page by page, appends single bytes to its last page, and frees a page
// when its last byte is read. So an empty pipe takes a page of bytes whatever its size, and a pipe
// of n pages has room while it holds at most n - 1 pages of bytes, however they lie.
bool TCEventIO::m_HasRoomForSure()
{
    const std::uint64_t unread = m_UnreadBytes;
    if (unread == 0) {
        m_RunBytes = 0;
    }
    if (m_RunBytes < kPageSize) {
        return true;
    }
    if (m_RunBytes % kPageSize == 0) { // anew for each page: somebody may have shrunk the pipe
        const int size = fcntl(m_PipeFileDes[1], F_GETPIPE_SZ);
        m_PipeSize = size > 0 ? static_cast<std::uint64_t>(size) : 0;
    }
    return unread + kPageSize <= m_PipeSize;
}

// Writes one byte for one entry, or finds no room, but never waits: this runs under the lock that
// the loop needs before it reads. Returns 0 or the error, which is told without the lock.
int TCEventIO::m_WriteByte()
{
    const int writeEnd = m_PipeFileDes[1];
    // The write end is a blocking one. Where the pipe may be full, it is made non-blocking for this
    // write; every writer holds the lock.
    const bool mayBlock = !m_HasRoomForSure();
    if (mayBlock) {
        fcntl(writeEnd, F_SETFL, O_NONBLOCK);
    }
    ssize_t written = 0;
    do {
        written = write(writeEnd, "O", 1);
    } while (written < 0 && errno == EINTR);
    const int error = written < 0 ? errno : EIO;
    if (mayBlock) {
        fcntl(writeEnd, F_SETFL, 0);
    }
    if (written == 1) {
        ++m_UnreadBytes;
        ++m_RunBytes;
        return 0;
    }
    return error;
}

} // namespace Velmora
