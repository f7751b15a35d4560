#include "Output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>

#include <glib.h>
#include <unistd.h>

#include "Failure.h"
#include "GLibPtr.h"
#include "Text.h"

namespace Ctl {

using namespace Velmora::Internal;

namespace {

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

} // namespace

Output::Output(bool json) : m_Json(json), m_Colours(!json && WantsColours()) {}

bool Output::WriteText(const std::string& text)
{
    errno = 0;
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (std::fflush(stdout) != 0 && m_WriteError == 0) {
        m_WriteError = errno != 0 ? errno : EIO;
    }
    return m_WriteError == 0;
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

int Output::Finish() const
{
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
