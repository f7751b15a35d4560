// SPDX-License-Identifier: MIT
// The entry point of sennetctl: parses the options before the command and runs the command.
#include <clocale>
#include <cstdio>
#include <memory>
#include <string>

#include "CommandLine.h"
#include "CommandTable.h"
#include "Failure.h"
#include "GLibPtr.h"
#include "Printable.h"
#include "sennet.h"

using namespace Ctl;

namespace {

std::string DescribeCommands()
{
    std::string text = "Commands:\n";
    for (const Command& command : kCommands) {
        const std::string usage = std::string(command.name) + " " + command.arguments;
        char line[128];
        std::snprintf(line, sizeof line, "  %-25s %s\n", usage.c_str(), command.summary);
        text += line;
    }
    return text + "\nRun \"sennetctl COMMAND --help\" for the options of a command.\n"
                  "Exit codes: 0 success, 1 failure, 2 wrong arguments, 3 timeout.";
}

const Command& FindCommand(const std::string& name)
{
    for (const Command& command : kCommands) {
        if (name == command.name) {
            return command;
        }
    }
    throw Failure(kUsage, "unknown command \"" + name + "\"");
}

struct GlobalOptions
{
    gboolean json = FALSE;
    gboolean version = FALSE;
};

// Removes the options before the command, so that argv[1] is the command.
GlobalOptions ParseGlobal(int& argc, char**& argv)
{
    GlobalOptions global;
    const GOptionEntry options[] = {
        JsonOption(&global.json),
        {"version", 0, 0, G_OPTION_ARG_NONE, &global.version, "Show the version", nullptr},
        {}};
    using OptionContextPtr =
        std::unique_ptr<GOptionContext, Velmora::Internal::Releaser<g_option_context_free>>;
    const OptionContextPtr context(g_option_context_new("COMMAND [ARGUMENT...]"));
    g_option_context_set_strict_posix(context.get(), TRUE); // leaves the rest to the command
    g_option_context_add_main_entries(context.get(), options, nullptr);
    g_option_context_set_description(context.get(), DescribeCommands().c_str());
    GError* raw = nullptr;
    const bool parsed = g_option_context_parse(context.get(), &argc, &argv, &raw) != FALSE;
    const Velmora::Internal::ErrorPtr error(raw);
    if (!parsed) {
        throw Failure(kUsage, error->message);
    }
    return global;
}

int Run(int argc, char** argv)
{
    const GlobalOptions global = ParseGlobal(argc, argv);
    if (global.version != FALSE) {
        std::puts("sennetctl " SENNET_VERSION);
        return kDone;
    }
    if (argc < 2) {
        throw Failure(kUsage, "missing command");
    }
    const Command& command = FindCommand(argv[1]);
    g_set_prgname((std::string("sennetctl ") + command.name).c_str());
    CommandLine line(command, argc - 1, argv + 1, global.json != FALSE);
    return command.run(line);
}

} // namespace

int main(int argc, char** argv)
{
    // Only the character set, so that messages stay English. No other thread runs yet.
    std::setlocale(LC_CTYPE, ""); // NOLINT(concurrency-mt-unsafe)
    // The tool reports errors itself, in one line. The library reads this with its first log line.
    g_setenv("SENNET_LOG_LEVEL", "none", FALSE);
    g_set_prgname("sennetctl");
    Velmora::SetAppName("sennetctl");
    try {
        return Run(argc, argv);
    } catch (const Failure& failure) {
        const char* const program = g_get_prgname();
        std::fprintf(stderr, "%s: %s", program, Printable(failure.what()).c_str());
        if (failure.Code() == kUsage) {
            std::fprintf(stderr, "; see \"%s --help\"", program);
        }
        std::fputc('\n', stderr);
        return failure.Code();
    }
}
