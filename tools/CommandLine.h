// The commands and their arguments.
#pragma once

#include <string>
#include <vector>

#include <glib.h>

namespace Ctl {

class CommandLine;

struct Command
{
    const char* name;
    const char* words; // as the usage line shows them
    const char* summary;
    std::size_t least; // number of words
    std::size_t most;
    int (*run)(CommandLine& line); // returns the exit code
};

int RunBench(CommandLine& line);
int RunEmit(CommandLine& line);
int RunList(CommandLine& line);
int RunListen(CommandLine& line);
int RunMonitor(CommandLine& line);
int RunPing(CommandLine& line);
int RunSend(CommandLine& line);
int RunWait(CommandLine& line);

// The value of an option that takes a text. It holds the bytes as they were typed, as options of
// the kind G_OPTION_ARG_FILENAME do: the kind for strings converts from the locale's character set,
// and so refuses UTF-8 in the locale "C".
class OptionText
{
public:
    OptionText() = default;
    ~OptionText() { g_free(m_Text); }
    OptionText(const OptionText&) = delete;
    OptionText& operator=(const OptionText&) = delete;

    char** Target() { return &m_Text; }
    bool IsGiven() const { return m_Text != nullptr; }
    std::string Value(const char* otherwise = "") const
    {
        return m_Text != nullptr ? m_Text : otherwise;
    }

private:
    char* m_Text = nullptr;
};

// The arguments of one command: it adds its options, has them parsed, and reads what is left.
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
    const std::vector<std::string>& Words() const { return m_Words; }

private:
    const Command& m_Command;
    GOptionContext* m_Context;
    int m_Argc;
    char** m_Argv;
    gboolean m_Json;
    std::vector<std::string> m_Words;
};

// The option --timeout, in milliseconds.
class TimeoutOption
{
public:
    TimeoutOption(CommandLine& line, const char* help);

    // After the line is parsed.
    bool IsGiven() const { return m_Milliseconds != kNotGiven; }
    int Value(int otherwise) const; // refuses a time that is not above 0

private:
    static constexpr int kNotGiven = G_MININT;

    int m_Milliseconds = kNotGiven;
};

} // namespace Ctl
