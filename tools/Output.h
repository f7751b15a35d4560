// What a command writes to standard output: lines for people, or records in JSON for programs.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include <glib.h>
#include <json/json.h>

namespace Ctl {

class Output
{
public:
    enum class Colour { Heading = 1, Green = 32, Yellow = 33, Blue = 34, Magenta = 35, Red = 31 };

    explicit Output(bool json);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool IsJson() const { return m_Json; }

    // From here on nothing waits for a slow reader: what it does not take at once is written by the
    // default main loop, up to 4 MiB; what comes meanwhile is dropped and counted, and the count
    // stands in its place.
    void DropForSlowReader() { m_Drops = true; }

    // Both write at once, since a reader may wait for the line; false if a write has failed.
    bool WriteText(std::string text);
    bool WriteRecord(const Json::Value& record);

    void WriteTable(const std::vector<std::string>& heading,
                    const std::vector<std::vector<std::string>>& rows);

    // The text, in colour if the output goes to a terminal that wants colours.
    std::string Paint(Colour colour, const std::string& text) const;

    // The code of a command that has done its work: throws if any of its output was lost.
    int Finish();

private:
    static gboolean OnWritable(int descriptor, GIOCondition condition, gpointer self);
    void WriteWaiting(int patience);
    bool WriteSome();
    std::string DescribeDropped() const;

    const bool m_Json;
    const bool m_Colours;
    bool m_Drops = false;
    int m_WriteError = 0; // errno of the first write that failed
    std::deque<std::string> m_Waiting;
    std::size_t m_WaitingSize = 0; // of all that waits
    std::size_t m_Written = 0;     // of the first that waits
    guint64 m_Dropped = 0;         // texts since there was room
    guint m_Source = 0;            // on the default main loop, 0 for none
};

// The time in microseconds since 1970 as hours to microseconds of the local time, and in full as
// UTC.
std::string ClockTime(long long microseconds);
std::string IsoTime(long long microseconds);

} // namespace Ctl
