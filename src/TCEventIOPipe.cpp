// SPDX-License-Identifier: MIT
// The wake-up pipe of a queue, with one byte for each entry, and the watch on it.
#include <atomic>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "Check.h"
#include "GLibPtr.h"
#include "TCEventIOPrivate.h"

namespace Velmora {

using namespace Internal;

namespace {

const auto kPageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));

// The number of forks between this process and the first one. A child shares the pipes of its
// parent's queues, but only the parent may write and read their bytes.
std::atomic<std::uint8_t> g_Forks{0};
[[maybe_unused]] const int g_CountForks = pthread_atfork(nullptr, nullptr, [] { ++g_Forks; });

// In a process that has closed its standard streams, the pipe would get their numbers, and whatever
// the process writes to standard error, log lines for example, would go into the pipe.
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

bool TCEventIO::Private::OpenPipe(TCEventIO& queue)
{
    if (pipe2(queue.m_PipeFileDes, O_CLOEXEC) != 0) {
        VELMORA_LOGE("Create pipe fail!");
        return false;
    }
    queue.m_PipeOpen = true;
    if (!MoveAboveStandardStreams(queue.m_PipeFileDes[0]) ||
        !MoveAboveStandardStreams(queue.m_PipeFileDes[1])) {
        VELMORA_LOGE("Create pipe fail!");
        return false;
    }
    fcntl(queue.m_PipeFileDes[0], F_SETFL, O_NONBLOCK);
    queue.m_UnreadBytes = 0;
    queue.m_PipeForks = g_Forks;
    return true;
}

bool TCEventIO::Private::OwnsPipe(const TCEventIO& queue)
{
    return queue.m_PipeForks == g_Forks;
}

// Whether a blocking write certainly does not block, judged only by what was written and read.
//
// The kernel fills a pipe page by page, appends single bytes to its last page, and frees a page
// when its last byte is read. So an empty pipe takes a page of bytes whatever its size, and a pipe
// of n pages has room while it holds at most n - 1 pages of bytes, wherever they are.
bool TCEventIO::Private::HasRoomForSure(TCEventIO& queue)
{
    const std::uint64_t unread = queue.m_UnreadBytes;
    if (unread == 0) {
        queue.m_RunBytes = 0;
    }
    SENNET_CHECK(unread <= queue.m_RunBytes);
    if (queue.m_RunBytes < kPageSize) {
        return true;
    }
    if (queue.m_RunBytes % kPageSize == 0) { // again for each page: the pipe may have been shrunk
        const int size = fcntl(queue.m_PipeFileDes[1], F_GETPIPE_SZ);
        queue.m_PipeSize = size > 0 ? static_cast<std::uint64_t>(size) : 0;
    }
    return unread + kPageSize <= queue.m_PipeSize;
}

int TCEventIO::Private::WriteByte(TCEventIO& queue)
{
    const int writeEnd = queue.m_PipeFileDes[1];
    // The write end is blocking. Where the pipe may be full, it is made non-blocking for this
    // write; every writer holds the lock.
    const bool mayBlock = !HasRoomForSure(queue);
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
        ++queue.m_UnreadBytes;
        ++queue.m_RunBytes;
        return 0;
    }
    return error;
}

GIOStatus TCEventIO::Private::ReadByte(TCEventIO& queue, GIOChannel* channel)
{
    gchar byte = 0;
    gsize size = 0;
    GError* raw = nullptr;
    const GIOStatus status = g_io_channel_read_chars(channel, &byte, 1, &size, &raw);
    const ErrorPtr error(raw);
    if (status == G_IO_STATUS_NORMAL) {
        if (queue.m_UnreadBytes > 0) { // else a forked child has written the byte
            --queue.m_UnreadBytes;
        }
    } else if (status == G_IO_STATUS_EOF) {
        VELMORA_LOGW("Read char from pipe to the end!");
    } else if (error) {
        VELMORA_LOGE("Read char from pipe fail,%s", error->message);
    }
    return status;
}

GSource* TCEventIO::Private::MakeWatch(TCEventIO& queue, GIOChannel* channel)
{
    GSource* const watch = g_io_create_watch(channel, G_IO_IN);
    // GLib takes a source that may not recurse out of the poll set for each dispatch, and wakes the
    // context's own poll twice for that.
    g_source_set_can_recurse(watch, TRUE);
    g_source_set_callback(watch, G_SOURCE_FUNC(&TCEventIO::m_InterIOWatch), &queue, nullptr);
    return watch;
}

bool TCEventIO::Private::AttachWatch(TCEventIO& queue)
{
    queue.m_Channel = g_io_channel_unix_new(queue.m_PipeFileDes[0]);
    if (queue.m_Channel == nullptr) {
        VELMORA_LOGE("Create channel fail!");
        return false;
    }
    GError* raw = nullptr;
    const GIOStatus status = g_io_channel_set_encoding(queue.m_Channel, nullptr, &raw);
    const ErrorPtr error(raw);
    if (status != G_IO_STATUS_NORMAL) {
        if (error) {
            VELMORA_LOGE("Read char from pipe fail,%s", error->message);
        }
        return false;
    }

    queue.m_Source = MakeWatch(queue, queue.m_Channel);
    GMainLoop* const loop = queue.m_MainLoop;
    g_source_attach(queue.m_Source, loop != nullptr ? g_main_loop_get_context(loop) : nullptr);
    g_io_channel_unref(std::exchange(queue.m_Channel, nullptr)); // the watch holds it from now on
    return true;
}

void TCEventIO::Private::ReleaseWatch(TCEventIO& queue)
{
    KeepWatchOff(queue);
    if (queue.m_Source != nullptr) {
        DestroySource(std::exchange(queue.m_Source, nullptr));
    }
    if (queue.m_Channel != nullptr) {
        g_io_channel_unref(std::exchange(queue.m_Channel, nullptr));
    }
    if (std::exchange(queue.m_PipeOpen, false)) {
        close(queue.m_PipeFileDes[1]);
        close(queue.m_PipeFileDes[0]);
    }
}

} // namespace Velmora
