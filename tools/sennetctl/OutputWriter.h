// SPDX-License-Identifier: MIT
// Writes the output of a command to standard output: lines for people, or JSON for programs.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include <glib.h>
#include <json/json.h>

namespace Ctl {

class OutputWriter
{
public:
    enum class Colour { Heading = 1, Green = 32, Yellow = 33, Blue = 34, Red = 31 };

    explicit OutputWriter(bool json);
    ~OutputWriter();
    OutputWriter(const OutputWriter&) = delete;
    OutputWriter& operator=(const OutputWriter&) = delete;

    bool IsJson() const { return m_Json; }

    // After this call a write no longer waits for a slow reader. Up to 4 MiB are queued and written
    // by the default main loop. While the queue is full, output is dropped; a line with the number
    // of dropped records replaces it.
    void DropForSlowReader() { m_Drops = true; }

    // Both write at once, because a reader may wait for the line. They return false once a write
    // has failed.
    bool WriteText(std::string text);
    bool WriteRecord(const Json::Value& record);

    void WriteTable(const std::vector<std::string>& heading,
                    const std::vector<std::vector<std::string>>& rows);

    // The text, coloured if the output is a terminal that supports colours.
    std::string Paint(Colour colour, const std::string& text) const;

    // Writes what is queued and returns the exit code of a command that has succeeded. Throws a
    // Failure if output was lost.
    int Finish();

private:
    static gboolean OnWritable(int descriptor, GIOCondition condition, gpointer data);
    void WriteQueued(int timeout);
    bool WriteSome();
    std::string DescribeDropped() const;

    const bool m_Json;
    const bool m_Colours;
    bool m_Drops = false;
    int m_WriteError = 0; // errno of the first write that failed
    std::deque<std::string> m_Queue;
    std::size_t m_QueuedBytes = 0;
    std::size_t m_WrittenBytes = 0; // of the first in the queue, which may be written in part
    guint64 m_Dropped = 0;          // since the queue was full
    guint m_Source = 0;             // on the default main loop, 0 for none
};

} // namespace Ctl
