// SPDX-License-Identifier: MIT
#include "OutputWriter.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string_view>

#include <glib-unix.h>
#include <poll.h>
#include <unistd.h>

#include "Failure.h"
#include "Json.h"
#include "TimeFormat.h"

namespace Ctl {

namespace {

constexpr std::size_t kQueueLimit = 4 << 20; // bytes
constexpr int kFinishTimeout = 2000;         // milliseconds

bool WantsColours()
{
    const char* const refused = g_getenv("NO_COLOR");
    const char* const terminal = g_getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0') &&
           terminal != nullptr && std::string_view(terminal) != "dumb";
}

// Whether the reader takes something within that many milliseconds, -1 for no limit.
bool IsWritable(int timeout)
{
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    int ready = 0;
    do {
        ready = poll(&output, 1, timeout);
    } while (ready < 0 && errno == EINTR);
    return ready != 0; // also if the reader is gone, which the write reports
}

} // namespace

OutputWriter::OutputWriter(bool json) : m_Json(json), m_Colours(!json && WantsColours()) {}

OutputWriter::~OutputWriter()
{
    if (m_Source != 0) {
        g_source_remove(m_Source);
    }
}

bool OutputWriter::WriteText(std::string text)
{
    const bool room = m_QueuedBytes == 0 || m_QueuedBytes + text.size() <= kQueueLimit;
    if (m_Dropped > 0 || !room) {
        ++m_Dropped;
    } else {
        m_QueuedBytes += text.size();
        m_Queue.push_back(std::move(text));
    }
    WriteQueued(m_Drops ? 0 : -1);
    if (!m_Queue.empty() && m_Source == 0) {
        m_Source = g_unix_fd_add(STDOUT_FILENO, G_IO_OUT, &OutputWriter::OnWritable, this);
    }
    return m_WriteError == 0;
}

gboolean OutputWriter::OnWritable(int /*descriptor*/, GIOCondition /*condition*/, gpointer data)
{
    auto* const self = static_cast<OutputWriter*>(data);
    self->WriteQueued(0);
    if (!self->m_Queue.empty()) {
        return G_SOURCE_CONTINUE;
    }
    self->m_Source = 0;
    return G_SOURCE_REMOVE;
}

// Returns when the queue is empty or the reader has taken nothing for that many milliseconds.
void OutputWriter::WriteQueued(int timeout)
{
    while (!m_Queue.empty() && IsWritable(timeout) && WriteSome()) {
        if (m_Queue.empty() && m_Dropped > 0) {
            m_Queue.push_back(DescribeDropped());
            m_QueuedBytes = m_Queue.front().size();
            m_Dropped = 0;
        }
    }
}

bool OutputWriter::WriteSome()
{
    // A pipe that is writable takes this much without blocking.
    const std::string& text = m_Queue.front();
    const std::size_t size = std::min<std::size_t>(text.size() - m_WrittenBytes, PIPE_BUF);
    const ssize_t written = write(STDOUT_FILENO, text.data() + m_WrittenBytes, size);
    if (written < 0) {
        if (errno == EINTR || errno == EAGAIN) {
            return true;
        }
        m_WriteError = errno;
        m_Queue.clear();
        m_QueuedBytes = m_WrittenBytes = 0;
        return false;
    }
    m_WrittenBytes += static_cast<std::size_t>(written);
    m_QueuedBytes -= static_cast<std::size_t>(written);
    if (m_WrittenBytes == text.size()) {
        m_Queue.pop_front();
        m_WrittenBytes = 0;
    }
    return true;
}

std::string OutputWriter::DescribeDropped() const
{
    if (m_Json) {
        Json::Value record;
        record["time"] = IsoTime(g_get_real_time());
        record["dropped"] = Json::UInt64{m_Dropped};
        return CompactJson(record) + "\n";
    }
    return "... " + std::to_string(m_Dropped) +
           " dropped because the output was not read in time\n";
}

bool OutputWriter::WriteRecord(const Json::Value& record)
{
    return WriteText(CompactJson(record) + "\n");
}

void OutputWriter::WriteTable(const std::vector<std::string>& heading,
                              const std::vector<std::vector<std::string>>& rows)
{
    std::vector<std::size_t> widths;
    for (std::size_t column = 0; column < heading.size(); ++column) {
        widths.push_back(heading[column].size());
        for (const auto& row : rows) {
            widths.back() = std::max(widths.back(), row[column].size());
        }
    }
    const auto line = [&widths](const std::vector<std::string>& cells) {
        std::string text;
        for (std::size_t column = 0; column + 1 < cells.size(); ++column) {
            text += cells[column];
            text.append(widths[column] - cells[column].size() + 2, ' ');
        }
        return text + cells.back();
    };
    std::string text = Paint(Colour::Heading, line(heading)) + "\n";
    for (const auto& row : rows) {
        text += line(row) + "\n";
    }
    WriteText(text);
}

std::string OutputWriter::Paint(Colour colour, const std::string& text) const
{
    return m_Colours ? "\033[" + std::to_string(static_cast<int>(colour)) + "m" + text + "\033[0m"
                     : text;
}

int OutputWriter::Finish()
{
    WriteQueued(kFinishTimeout);
    if (!m_Queue.empty()) {
        throw Failure(kFailed, "cannot write the output: the reader does not read it");
    }
    if (m_WriteError == EPIPE) { // the reader wants no more, such as head
        return kFailed;
    }
    if (m_WriteError != 0) {
        throw Failure(kFailed, std::string("cannot write the output: ") + g_strerror(m_WriteError));
    }
    return kDone;
}

} // namespace Ctl
