// Talks with the services on the bus from the command line.
#include <clocale>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>

#include "CommandLine.h"
#include "Failure.h"
#include "GLibPtr.h"
#include "Text.h"
#include "sennet.h"

using namespace Ctl;

namespace {

constexpr std::size_t kAnyNumber = std::numeric_limits<std::size_t>::max();

const Command kCommands[] = {
    {"list", "", "List the services on the bus", 0, 0, &RunList},
    {"send", "DEST [TEXT|-]", "Send a message to a service and show the answer", 1, 2, &RunSend},
    {"listen", "[FROM] SIGNAL...", "Show signals as they come, until interrupted", 1, kAnyNumber,
     &RunListen},
    {"emit", "SIGNAL [TEXT|-]", "Broadcast a signal", 1, 2, &RunEmit},
    {"wait", "SERVICE", "Wait until a service is on the bus", 1, 1, &RunWait},
    {"ping", "SERVICE", "Measure the way to a service and back", 1, 1, &RunPing},
    {"monitor", "[SERVICE...]", "Show the messages and signals between services", 0, kAnyNumber,
     &RunMonitor},
    {"bench", "DEST [TEXT|-]", "Measure how fast a service answers", 1, 2, &RunBench},
};

std::string DescribeCommands()
{
    std::string text = "Commands:\n";
    for (const Command& command : kCommands) {
        const std::string usage = std::string(command.name) + " " + command.words;
        char line[128];
        std::snprintf(line, sizeof line, "  %-25s %s\n", usage.c_str(), command.summary);
        text += line;
    }
    return text + "\nsennetctl COMMAND --help shows the options of a command.\n"
                  "Exit codes: 0 done, 1 failed, 2 wrong arguments, 3 timed out.";
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

// Takes off the options before the command, which becomes argv[1].
GlobalOptions ParseGlobal(int& argc, char**& argv)
{
    GlobalOptions global;
    const GOptionEntry options[] = {
        {"json", 'j', 0, G_OPTION_ARG_NONE, &global.json, "One line of JSON for each record",
         nullptr},
        {"version", 0, 0, G_OPTION_ARG_NONE, &global.version, "Show the version", nullptr},
        {}};
    using OptionContextPtr =
        std::unique_ptr<GOptionContext, Velmora::Internal::Releaser<g_option_context_free>>;
    const OptionContextPtr context(g_option_context_new("COMMAND [ARGUMENT...]"));
    g_option_context_set_strict_posix(context.get(), TRUE); // the rest is the command's
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
        throw Failure(kUsage, "a command is missing");
    }
    const Command& command = FindCommand(argv[1]);
    g_set_prgname((std::string("sennetctl ") + command.name).c_str());
    CommandLine line(command, argc - 1, argv + 1, global.json != FALSE);
    return command.run(line);
}

} // namespace

int main(int argc, char** argv)
{
    // For the characters alone: messages stay English. No other thread runs yet.
    std::setlocale(LC_CTYPE, ""); // NOLINT(concurrency-mt-unsafe)
    // What the library logs is told here in one line; it reads this with its first one.
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
