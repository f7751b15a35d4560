// SPDX-License-Identifier: MIT
// Parses the arguments of a command, and the options that several commands share.
#pragma once

#include <string>
#include <vector>

#include <glib.h>

namespace Ctl {

struct Command;

// The option --json, which is accepted before and after the command.
GOptionEntry JsonOption(gboolean* target);

// A command adds its options, calls Parse(), then reads the options and Arguments().
class CommandLine
{
public:
    // argv[0] is the command's name.
    CommandLine(const Command& command, int argc, char** argv, bool json);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    void Add(std::vector<GOptionEntry> options);
    void Parse();

    bool WantsJson() const { return m_Json != FALSE; }
    const std::vector<std::string>& Arguments() const { return m_Arguments; } // without the options

private:
    const Command& m_Command;
    GOptionContext* m_Context;
    int m_Argc;
    char** m_Argv;
    gboolean m_Json;
    std::vector<std::string> m_Arguments;
};

// The value of an option that takes a text. Use it with G_OPTION_ARG_FILENAME, which keeps the
// bytes as they were typed: G_OPTION_ARG_STRING converts them from the character set of the locale,
// and so rejects UTF-8 in the locale "C".
class StringOption
{
public:
    StringOption() = default;
    ~StringOption() { g_free(m_Text); }
    StringOption(const StringOption&) = delete;
    StringOption& operator=(const StringOption&) = delete;

    char** Target() { return &m_Text; }
    bool IsGiven() const { return m_Text != nullptr; }
    std::string Value(const char* defaultValue = "") const
    {
        return m_Text != nullptr ? m_Text : defaultValue;
    }

private:
    char* m_Text = nullptr;
};

constexpr int kAnswerTimeout = 25000; // default for an answer, in milliseconds

// The option --timeout, in milliseconds.
class TimeoutOption
{
public:
    TimeoutOption(CommandLine& line, const char* help);

    // Call these after Parse().
    bool IsGiven() const { return m_Milliseconds != kNotGiven; }
    int Value(int defaultValue) const; // throws if the given time is below 1

private:
    static constexpr int kNotGiven = G_MININT;

    int m_Milliseconds = kNotGiven;
};

// The option --count.
class CountOption
{
public:
    CountOption(CommandLine& line, int defaultValue, const char* help);

    int Value() const; // call it after Parse(); throws if the number is below 1

private:
    int m_Count;
};

} // namespace Ctl
