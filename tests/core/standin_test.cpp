// SPDX-License-Identifier: MIT
// The library's own log service, which replaces the platform's, in a process of its own.
#include <memory>
#include <string>

#include <glib.h>
#include <gtest/gtest.h>

namespace {

std::string OutputOf(const std::string& command)
{
    std::string shell = "sh", option = "-c", copy = command;
    char* arguments[] = {shell.data(), option.data(), copy.data(), nullptr};
    char* output = nullptr;
    g_spawn_sync(nullptr, arguments, nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &output,
                 nullptr, nullptr, nullptr);
    const std::unique_ptr<char, decltype(&g_free)> owned(output, &g_free);
    return output;
}

} // namespace

TEST(LogStandIn, WritesWholeLinesToStandardErrorAndSurvivesItsEnd)
{
    const auto place = [](const std::string& colour) {
        return R"(/Sennet\((\d+):\1\) log_writer\.cpp: main\(\d+\) > )" + colour + R"( \[nil\])";
    };
    const std::string hostile = R"(warning two  lines é\| \| \| \| \| \[8m \[33m \[nil\])";
    const std::string warning = "W" + place("") + hostile + "\n";
    const std::string error = "E" + place("") + "x{0,2}(?:€){1300,}\n";
    const std::string errors = "(?:" + error + "){3}";
    const std::string info = "I" + place("") + "info\n";
    const std::string unknown =
        R"(W/Sennet\(\d+:\d+\) SENNET_LOG_LEVEL is none of .*"very loud"\n)";
    const std::string program = LOG_WRITER;
    const struct
    {
        std::string command, output;
    } cases[] = {
        {program + " 2>&1; echo $?", warning + errors + "0\n"},
        {"SENNET_LOG_LEVEL='very loud' " + program + " 2>&1", unknown + warning + errors},
        {"SENNET_LOG_LEVEL=info " + program + " 2>&1", info + warning + errors},
        {"SENNET_LOG_LEVEL=debug " + program + " 2>&1",
         info + warning + "E" + place("") + "\n" + errors},
        {"SENNET_LOG_LEVEL=error " + program + " 2>&1", errors},
        {"SENNET_LOG_LEVEL=none " + program + " 2>&1; echo $?", "0\n"},
        {program + " journal 2>&1", "<4>" + warning + "(?:<3>" + error + "){3}"},
        // JOURNAL_STREAM of another process.
        {program + " foreign 2>&1", warning + errors},
        {"exec 3>&1; JOURNAL_STREAM=$(stat -Lc %d:%i /dev/fd/3) " + program + " 2>&3",
         warning + errors},
        {program + " 2>&-; echo $?", "0\n"},
        // The file has reached its size limit. A lower limit would fail the sanitizers' own files.
        {"file=$(mktemp); truncate -s 4M $file; (ulimit -f 2048; exec " + program +
             " 2>>$file); echo $?; rm $file",
         "0\n"},
        // The long line is cut, but keeps the end of its colour.
        {"script -qec " + program + " /dev/null </dev/null | tail -c 9", "€\033\\[0m\r\n"},
        {"script -qec " + program + " /dev/null </dev/null | grep -a ^W",
         "W" + place("\033\\[33m") + hostile + "\033\\[0m\r\n"},
        // The reader is gone: SIGPIPE must neither end the process nor stay pending.
        {"exec 3>&1; (sleep 0.2; " + program + "; echo $? >&3) 2>&1 >/dev/null | true", "0\n"},
        {"exec 3>&1; (sleep 0.2; " + program + " pending; echo $? >&3) 2>&1 >/dev/null | true",
         "0\n"},
    };
    for (const auto& c : cases) {
        const std::string output = OutputOf(c.command);
        const std::string whole = "^(?:" + c.output + ")$";
        EXPECT_TRUE(g_regex_match_simple(whole.c_str(), output.c_str(), G_REGEX_DOLLAR_ENDONLY,
                                         GRegexMatchFlags{}))
            << c.command << "\n"
            << output;
        for (std::size_t start = 0; start < output.size(); start = output.find('\n', start) + 1) {
            EXPECT_LE(output.find('\n', start) - start, 4095U);
        }
    }
}
