#include "Output.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <string_view>

#include <glib-unix.h>
#include <poll.h>
#include <unistd.h>

#include "Failure.h"
#include "GLibPtr.h"
#include "Text.h"

namespace Ctl {

using namespace Velmora::Internal;

namespace {

constexpr std::size_t kWaitingLimit = 4 << 20; // bytes
constexpr int kPatience = 2000;                // milliseconds, at the end

bool WantsColours()
{
    const char* const refused = g_getenv("NO_COLOR");
    const char* const terminal = g_getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0') &&
           terminal != nullptr && std::string_view(terminal) != "dumb";
}

using DatePtr = std::unique_ptr<GDateTime, Releaser<g_date_time_unref>>;
using CharPtr = std::unique_ptr<char, Releaser<g_free>>;

std::string FormatTime(GDateTime* seconds, long long microseconds, const char* format)
{
    const DatePtr whole(seconds);
    const DatePtr time(g_date_time_add(whole.get(), microseconds % G_USEC_PER_SEC));
    return CharPtr(g_date_time_format(time.get(), format)).get();
}

// Whether the reader takes something within that time in milliseconds, -1 for without a limit.
bool IsWritable(int patience)
{
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    int ready = 0;
    do {
        ready = poll(&output, 1, patience);
    } while (ready < 0 && errno == EINTR);
    return ready != 0; // also of one that is gone, as the write will say
}

} // namespace

Output::Output(bool json) : m_Json(json), m_Colours(!json && WantsColours()) {}

Output::~Output()
{
    if (m_Source != 0) {
        g_source_remove(m_Source);
    }
}

bool Output::WriteText(std::string text)
{
    const bool room = m_WaitingSize == 0 || m_WaitingSize + text.size() <= kWaitingLimit;
    if (m_Dropped > 0 || !room) {
        ++m_Dropped;
    } else {
        m_WaitingSize += text.size();
        m_Waiting.push_back(std::move(text));
    }
    WriteWaiting(m_Drops ? 0 : -1);
    if (!m_Waiting.empty() && m_Source == 0) {
        m_Source = g_unix_fd_add(STDOUT_FILENO, G_IO_OUT, &Output::OnWritable, this);
    }
    return m_WriteError == 0;
}

gboolean Output::OnWritable(int /*descriptor*/, GIOCondition /*condition*/, gpointer data)
{
    auto* const self = static_cast<Output*>(data);
    self->WriteWaiting(0);
    if (!self->m_Waiting.empty()) {
        return G_SOURCE_CONTINUE;
    }
    self->m_Source = 0;
    return G_SOURCE_REMOVE;
}

// Ends when nothing waits or the reader has taken nothing for that long.
void Output::WriteWaiting(int patience)
{
    while (!m_Waiting.empty() && IsWritable(patience) && WriteSome()) {
        if (m_Waiting.empty() && m_Dropped > 0) {
            m_Waiting.push_back(DescribeDropped());
            m_WaitingSize = m_Waiting.front().size();
            m_Dropped = 0;
        }
    }
}

bool Output::WriteSome()
{
    // A pipe that takes anything takes so much without waiting.
    const std::string& text = m_Waiting.front();
    const std::size_t size = std::min<std::size_t>(text.size() - m_Written, PIPE_BUF);
    const ssize_t written = write(STDOUT_FILENO, text.data() + m_Written, size);
    if (written < 0) {
        if (errno == EINTR || errno == EAGAIN) {
            return true;
        }
        m_WriteError = errno;
        m_Waiting.clear();
        m_WaitingSize = m_Written = 0;
        return false;
    }
    m_Written += static_cast<std::size_t>(written);
    m_WaitingSize -= static_cast<std::size_t>(written);
    if (m_Written == text.size()) {
        m_Waiting.pop_front();
        m_Written = 0;
    }
    return true;
}

std::string Output::DescribeDropped() const
{
    if (m_Json) {
        Json::Value record;
        record["time"] = IsoTime(g_get_real_time());
        record["dropped"] = Json::UInt64{m_Dropped};
        return CompactJson(record) + "\n";
    }
    return "... " + std::to_string(m_Dropped) + " more dropped: the output was not read in time\n";
}

bool Output::WriteRecord(const Json::Value& record)
{
    return WriteText(CompactJson(record) + "\n");
}

void Output::WriteTable(const std::vector<std::string>& heading,
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

std::string Output::Paint(Colour colour, const std::string& text) const
{
    return m_Colours ? "\033[" + std::to_string(static_cast<int>(colour)) + "m" + text + "\033[0m"
                     : text;
}

int Output::Finish()
{
    WriteWaiting(kPatience);
    if (!m_Waiting.empty()) {
        throw Failure(kFailed, "cannot write the output: nobody reads it");
    }
    if (m_WriteError == EPIPE) { // the reader has what it wanted
        return kFailed;
    }
    if (m_WriteError != 0) {
        throw Failure(kFailed, std::string("cannot write the output: ") + g_strerror(m_WriteError));
    }
    return kDone;
}

std::string ClockTime(long long microseconds)
{
    return FormatTime(g_date_time_new_from_unix_local(microseconds / G_USEC_PER_SEC), microseconds,
                      "%H:%M:%S.%f");
}

std::string IsoTime(long long microseconds)
{
    return FormatTime(g_date_time_new_from_unix_utc(microseconds / G_USEC_PER_SEC), microseconds,
                      "%Y-%m-%dT%H:%M:%S.%fZ");
}

} // namespace Ctl
