#include "CommandLine.h"

#include <memory>
#include <utility>

#include "Failure.h"
#include "GLibPtr.h"

namespace Ctl {

using namespace Velmora::Internal;

CommandLine::CommandLine(const Command& command, int argc, char** argv, bool json)
    : m_Command(command), m_Context(g_option_context_new(command.words)), m_Argc(argc),
      m_Argv(argv), m_Json(json ? TRUE : FALSE)
{
    g_option_context_set_summary(m_Context, command.summary);
    Add({{"json", 'j', 0, G_OPTION_ARG_NONE, &m_Json, "One line of JSON for each record",
          nullptr}});
}

CommandLine::~CommandLine()
{
    g_option_context_free(m_Context);
}

void CommandLine::Add(std::vector<GOptionEntry> options)
{
    options.push_back({});
    g_option_context_add_main_entries(m_Context, options.data(), nullptr);
}

void CommandLine::Parse()
{
    char** words = nullptr;
    Add({{G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &words, nullptr, nullptr}});
    GError* raw = nullptr;
    const bool parsed = g_option_context_parse(m_Context, &m_Argc, &m_Argv, &raw) != FALSE;
    const ErrorPtr error(raw);
    const std::unique_ptr<char*, Releaser<g_strfreev>> ownWords(words);
    if (!parsed) {
        throw Failure(kUsage, error->message);
    }
    for (char** word = words; word != nullptr && *word != nullptr; ++word) {
        m_Words.emplace_back(*word);
    }
    if (m_Words.size() < m_Command.least) {
        throw Failure(kUsage, std::string("an argument is missing: ") + m_Command.words);
    }
    if (m_Words.size() > m_Command.most) {
        throw Failure(kUsage,
                      "too many arguments, the first of them \"" + m_Words[m_Command.most] + "\"");
    }
}

TimeoutOption::TimeoutOption(CommandLine& line, const char* help)
{
    line.Add({{"timeout", 'T', 0, G_OPTION_ARG_INT, &m_Milliseconds, help, "MILLISECONDS"}});
}

int TimeoutOption::Value(int otherwise) const
{
    if (IsGiven() && m_Milliseconds <= 0) {
        throw Failure(kUsage, "a timeout is a positive number of milliseconds");
    }
    return IsGiven() ? m_Milliseconds : otherwise;
}

} // namespace Ctl
