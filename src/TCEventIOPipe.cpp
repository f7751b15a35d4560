// The wake-up pipe of a queue and the watch on it: one byte a queued event.
#include "TCEventIO.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "GLibPtr.h"

namespace Velmora {

using namespace Internal;

namespace {

const auto kPageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));

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
    return true;
}

bool TCEventIO::m_AttachWatch()
{
    m_Channel = g_io_channel_unix_new(m_PipeFileDes[0]);
    if (m_Channel == nullptr) {
        VELMORA_LOGE("Create channel fail!");
        return false;
    }
    GError* raw = nullptr;
    const GIOStatus status = g_io_channel_set_encoding(m_Channel, nullptr, &raw);
    const ErrorPtr error(raw);
    if (status != G_IO_STATUS_NORMAL) {
        if (error) {
            VELMORA_LOGE("Read char from pipe fail,%s", error->message);
        }
        return false;
    }

    m_Source = g_io_create_watch(m_Channel, G_IO_IN);
    GMainLoop* const loop = m_MainLoop;
    GMainContext* const context =
        loop != nullptr ? g_main_loop_get_context(loop) : g_main_context_default();
    // GLib takes a source that may not recurse out of the poll set for each dispatch, and wakes the
    // context's own poll for it twice. A nested loop in a handler goes on with the queue instead.
    g_source_set_can_recurse(m_Source, TRUE);
    g_source_set_callback(m_Source, G_SOURCE_FUNC(&TCEventIO::m_InterIOWatch), this, nullptr);
    g_source_attach(m_Source, context);
    g_io_channel_unref(std::exchange(m_Channel, nullptr)); // the watch holds it from here on
    return true;
}

void TCEventIO::m_ReleaseWatch()
{
    if (m_Source != nullptr) {
        DestroySource(std::exchange(m_Source, nullptr));
    }
    if (m_Channel != nullptr) {
        g_io_channel_unref(std::exchange(m_Channel, nullptr));
    }
    if (std::exchange(m_PipeOpen, false)) {
        close(m_PipeFileDes[1]);
        close(m_PipeFileDes[0]);
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
// the loop needs before it reads.
TCEventIO::PostResult TCEventIO::m_WriteByte()
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
    const int error = errno;
    if (mayBlock) {
        fcntl(writeEnd, F_SETFL, 0);
    }
    if (written == 1) {
        ++m_UnreadBytes;
        ++m_RunBytes;
        return PostResult::Queued;
    }
    if (error == EAGAIN) {
        return PostResult::PipeFull;
    }
    VELMORA_LOGE("event io %s: write to pipe fail,%s", m_Name.c_str(), g_strerror(error));
    return PostResult::WriteFailed;
}

} // namespace Velmora
