// SPDX-License-Identifier: MIT
// Keeps processes on a bus busy and watches them: sennet-soak MINUTES. Exits with 1 when a message
// is lost, or when a process ends early or grows.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ChildProcess.h"
#include "Roles.h"

namespace {

using Velmora::Internal::Releaser;

constexpr int kTenths = 10;
constexpr int kWarmUp = 3; // tenths; after them nothing may grow

struct Report
{
    unsigned long long sent = 0, lost = 0, refused = 0;
    long memory = 0; // KiB
    int descriptors = 0, threads = 0;
};

class Process
{
public:
    explicit Process(std::string role)
        : m_Role(std::move(role)),
          m_Process({"/proc/self/exe", m_Role.c_str()},
                    static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                                  G_SUBPROCESS_FLAGS_STDOUT_PIPE)),
          m_Output(g_data_input_stream_new(g_subprocess_get_stdout_pipe(m_Process.Get())))
    {}

    const std::string& Role() const { return m_Role; }

    // Returns false if the process does not answer.
    bool Ask(Report& report)
    {
        GOutputStream* const input = g_subprocess_get_stdin_pipe(m_Process.Get());
        g_output_stream_write_all(input, "\n", 1, nullptr, nullptr, nullptr);
        const std::unique_ptr<char, Releaser<g_free>> line(
            g_data_input_stream_read_line(m_Output.get(), nullptr, nullptr, nullptr));
        return line != nullptr && std::sscanf(line.get(), "%llu %llu %llu %ld %d %d", &report.sent,
                                              &report.lost, &report.refused, &report.memory,
                                              &report.descriptors, &report.threads) == 6;
    }

    // Ends the process. Returns false if it failed.
    bool Finish()
    {
        g_output_stream_close(g_subprocess_get_stdin_pipe(m_Process.Get()), nullptr, nullptr);
        return m_Process.EndsWell();
    }

private:
    std::string m_Role;
    Support::ChildProcess m_Process;
    std::unique_ptr<GDataInputStream, Releaser<g_object_unref>> m_Output;
};

bool HasGrown(const Report& before, const Report& now)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr long slack = G_MAXINT32; // sanitizers keep memory
#else
    constexpr long slack =
        16384; // KiB; within minutes, a leak of a few bytes per message is more than this
#endif
    // Allocators and thread pools keep some memory, descriptors and threads for later use.
    return now.memory > before.memory + before.memory / 5 + slack ||
           now.descriptors > before.descriptors + 8 || now.threads > before.threads + 4;
}

int RunAll(double minutes)
{
    std::vector<std::unique_ptr<Process>> processes;
    for (const char* role : {"service", "client", "client", "mayflies", "rivals", "rivals"}) {
        processes.push_back(std::make_unique<Process>(role));
    }
    std::vector<Report> warm(processes.size());
    bool good = true;
    std::printf("%7s |%12s |%6s |%8s |%10s |%12s |%8s\n", "minute", "sent", "lost", "refused",
                "KiB", "descriptors", "threads");
    for (int tenth = 1; tenth <= kTenths; ++tenth) {
        const auto mortal = std::make_unique<Process>("client"); // killed while it works
        g_usleep(static_cast<gulong>(minutes * 60e6 / kTenths));
        Report sum;
        for (std::size_t i = 0; i < processes.size(); ++i) {
            Report report;
            if (!processes[i]->Ask(report)) {
                std::printf("FAILED: a %s has ended early\n", processes[i]->Role().c_str());
                return 1;
            }
            if (tenth == kWarmUp) {
                warm[i] = report;
            } else if (tenth == kTenths && HasGrown(warm[i], report)) {
                std::printf("FAILED: a %s has grown: %ld to %ld KiB, %d to %d descriptors, %d to "
                            "%d threads\n",
                            processes[i]->Role().c_str(), warm[i].memory, report.memory,
                            warm[i].descriptors, report.descriptors, warm[i].threads,
                            report.threads);
                good = false;
            }
            sum.sent += report.sent;
            sum.lost += report.lost;
            sum.refused += report.refused;
            sum.memory += report.memory;
            sum.descriptors += report.descriptors;
            sum.threads += report.threads;
        }
        std::printf("%7.2f |%12llu |%6llu |%8llu |%10ld |%12d |%8d\n", minutes * tenth / kTenths,
                    sum.sent, sum.lost, sum.refused, sum.memory, sum.descriptors, sum.threads);
        std::fflush(stdout);
        good = good && sum.lost == 0;
    }
    for (auto process = processes.rbegin(); process != processes.rend(); ++process) {
        if (!(*process)->Finish()) { // the clients before their service
            std::printf("FAILED: a %s has failed at its end\n", (*process)->Role().c_str());
            good = false;
        }
    }
    std::puts(good ? "Nothing lost, nothing grown." : "FAILED");
    return good ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    const double minutes = argc == 2 ? std::strtod(argv[1], nullptr) : 0;
    if (minutes > 0) {
        return RunAll(minutes);
    }
    return argc == 2 ? Soak::RunRole(argv[1]) : 2;
}
