// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include <memory>
#include <utility>

#include "CommandTable.h"
#include "Failure.h"
#include "GLibPtr.h"

namespace Ctl {

using namespace Velmora::Internal;

GOptionEntry JsonOption(gboolean* target)
{
    return {"json", 'j', 0, G_OPTION_ARG_NONE, target, "Write each record as one line of JSON",
            nullptr};
}

CommandLine::CommandLine(const Command& command, int argc, char** argv, bool json)
    : m_Command(command), m_Context(g_option_context_new(command.arguments)), m_Argc(argc),
      m_Argv(argv), m_Json(json ? TRUE : FALSE)
{
    g_option_context_set_summary(m_Context, command.summary);
    Add({JsonOption(&m_Json)});
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
    char** arguments = nullptr;
    Add({{G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &arguments, nullptr, nullptr}});
    GError* raw = nullptr;
    const bool parsed = g_option_context_parse(m_Context, &m_Argc, &m_Argv, &raw) != FALSE;
    const ErrorPtr error(raw);
    const std::unique_ptr<char*, Releaser<g_strfreev>> ownArguments(arguments);
    if (!parsed) {
        throw Failure(kUsage, error->message);
    }
    for (char** argument = arguments; argument != nullptr && *argument != nullptr; ++argument) {
        m_Arguments.emplace_back(*argument);
    }
    if (m_Arguments.size() < m_Command.minArguments) {
        throw Failure(kUsage, std::string("missing argument: ") + m_Command.arguments);
    }
    if (m_Arguments.size() > m_Command.maxArguments) {
        throw Failure(kUsage,
                      "unexpected argument \"" + m_Arguments[m_Command.maxArguments] + "\"");
    }
}

TimeoutOption::TimeoutOption(CommandLine& line, const char* help)
{
    line.Add({{"timeout", 'T', 0, G_OPTION_ARG_INT, &m_Milliseconds, help, "MILLISECONDS"}});
}

int TimeoutOption::Value(int defaultValue) const
{
    if (IsGiven() && m_Milliseconds <= 0) {
        throw Failure(kUsage, "--timeout must be at least 1");
    }
    return IsGiven() ? m_Milliseconds : defaultValue;
}

CountOption::CountOption(CommandLine& line, int defaultValue, const char* help)
    : m_Count(defaultValue)
{
    line.Add({{"count", 'n', 0, G_OPTION_ARG_INT, &m_Count, help, "N"}});
}

int CountOption::Value() const
{
    if (m_Count < 1) {
        throw Failure(kUsage, "--count must be at least 1");
    }
    return m_Count;
}

} // namespace Ctl
