// What a command writes to standard output: lines for people, or records in JSON for programs.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

namespace Ctl {

class Output
{
public:
    enum class Colour { Heading = 1, Green = 32, Yellow = 33, Blue = 34, Magenta = 35, Red = 31 };

    explicit Output(bool json);

    bool IsJson() const { return m_Json; }

    // Both write at once, since a reader may wait for the line; false if that failed.
    bool WriteText(const std::string& text);
    bool WriteRecord(const Json::Value& record);

    void WriteTable(const std::vector<std::string>& heading,
                    const std::vector<std::vector<std::string>>& rows);

    // The text, in colour if the output goes to a terminal that wants colours.
    std::string Paint(Colour colour, const std::string& text) const;

    // The code of a command that has done its work: throws if any of its output was lost.
    int Finish() const;

private:
    const bool m_Json;
    const bool m_Colours;
    int m_WriteError = 0; // errno of the first write that failed
};

// The time in microseconds since 1970 as hours to microseconds of the local time, and in full as
// UTC.
std::string ClockTime(long long microseconds);
std::string IsoTime(long long microseconds);

} // namespace Ctl
