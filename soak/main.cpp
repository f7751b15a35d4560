// Keeps processes on a bus busy for a time and watches them: soak MINUTES. Exits with 1 when a
// message is lost, a process ends early, or one of them grows.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include "Roles.h"

namespace {

constexpr int kTenths = 10;
constexpr int kWarmUp = 3; // tenths, after which nothing grows any more

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
          m_Process(g_subprocess_new(static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                                                   G_SUBPROCESS_FLAGS_STDOUT_PIPE),
                                     nullptr, "/proc/self/exe", m_Role.c_str(), nullptr)),
          m_Output(g_data_input_stream_new(g_subprocess_get_stdout_pipe(m_Process)))
    {}
    ~Process()
    {
        g_subprocess_force_exit(m_Process);
        g_subprocess_wait(m_Process, nullptr, nullptr);
        g_object_unref(m_Output);
        g_object_unref(m_Process);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    const std::string& Role() const { return m_Role; }

    // False if it does not answer.
    bool Ask(Report& report)
    {
        GOutputStream* const input = g_subprocess_get_stdin_pipe(m_Process);
        g_output_stream_write_all(input, "\n", 1, nullptr, nullptr, nullptr);
        char* const line = g_data_input_stream_read_line(m_Output, nullptr, nullptr, nullptr);
        const bool answered =
            line != nullptr &&
            std::sscanf(line, "%llu %llu %llu %ld %d %d", &report.sent, &report.lost,
                        &report.refused, &report.memory, &report.descriptors, &report.threads) == 6;
        g_free(line);
        return answered;
    }

    // Lets it come to its end; false if that was not a good one.
    bool Finish()
    {
        g_output_stream_close(g_subprocess_get_stdin_pipe(m_Process), nullptr, nullptr);
        return g_subprocess_wait_check(m_Process, nullptr, nullptr) != 0;
    }

private:
    std::string m_Role;
    GSubprocess* m_Process;
    GDataInputStream* m_Output;
};

bool HasGrown(const Report& before, const Report& now)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr long slack = G_MAXINT32; // these keep memory of their own
#else
    constexpr long slack = 16384; // KiB; a leak of a few bytes a message is more within minutes
#endif
    // What allocators and thread pools keep for later use comes and goes.
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
        const auto mortal = std::make_unique<Process>("client"); // killed in the middle of its work
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
        if (!(*process)->Finish()) { // clients before their service
            std::printf("FAILED: a %s has not come to a good end\n", (*process)->Role().c_str());
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
