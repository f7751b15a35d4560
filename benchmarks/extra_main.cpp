// SPDX-License-Identifier: MIT
// Compares what sennet-extra.h offers with the plain way of the library, on a bus. Each ratio is
// the median of interleaved pairs.
#include <algorithm>
#include <coroutine>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <unistd.h>

#include "ChildProcess.h"
#include "sennet-extra.h"
#include "sennet.h"

namespace {

using namespace Velmora;

constexpr int kPairs = 41;
constexpr int kCalls = 100; // of each side of a pair

const std::string kJson =
    R"({"name":"sensor-17","room":"kitchen","celsius":21.5,"humidity":48,"ok":true,"tags":["a","b","c"],"n":42})";

constexpr char kPlain[] = "bench.plain", kDeferred[] = "bench.deferred",
               kChecked[] = "bench.checked";

// A service in a process of its own, which answers in the way that its name tells.
class Echo : public TCServer
{
public:
    explicit Echo(const char* name) : TCServer(name, SERVER_TYPE_SERVICE), m_Name(name) {}

protected:
    bool IfMessageReceived(const char* /*from*/, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        if (m_Name == kDeferred) {
            return TCReply::Later().Answer(*message);
        }
        if (m_Name == kChecked) {
            const TCCaller caller = TCCaller::Current();
            if (caller.User() != geteuid() && !caller.IsInGroup(getegid())) {
                return false;
            }
        }
        *reply = *message;
        return true;
    }

private:
    const std::string m_Name;
};

void RunService(const char* name)
{
    TCScope<Echo> echo(name);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE)); // until the process is killed
}

class Client : public TCServer
{
public:
    Client() : TCServer("bench.client", SERVER_TYPE_SERVICE) {}
    bool replied = false;

protected:
    bool IfMessageReplied(const char* /*from*/, const TCMessage* /*message*/) override
    {
        replied = true;
        return true;
    }
};

struct Coroutine
{
    struct promise_type
    {
        Coroutine get_return_object() { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::abort(); }
    };
};

class Bench
{
public:
    Bench()
    {
        m_Message.SetMessage(kJson);
        for (const char* name : {kPlain, kDeferred, kChecked}) {
            while (!m_Client->IsServiceAvailable(name)) {
                g_usleep(1000);
            }
        }
    }

    void Run()
    {
        const auto send = [this] { Send(); };
        const auto callback = [this] { Callback(); };
        const auto await = [this] { Await(); };
        Row("callback to asynchronous send", callback, send, 1.05);
        Row("co_await to callback", await, callback, 1.1);
        Row(
            "deferred to immediate reply", [this] { Call(kDeferred); }, [this] { Call(kPlain); },
            1.05);
        Row(
            "authorising to plain hook", [this] { Call(kChecked); }, [this] { Call(kPlain); },
            1.05);
    }

private:
    using Times = std::vector<double>;
    using Side = std::function<void()>;

    static double Quantile(Times times, double share)
    {
        std::sort(times.begin(), times.end());
        return times[static_cast<std::size_t>(share * static_cast<double>(times.size() - 1))];
    }
    static double Measure(const Side& side)
    {
        const gint64 start = g_get_monotonic_time();
        for (int i = 0; i < kCalls; ++i) {
            side();
        }
        return static_cast<double>(g_get_monotonic_time() - start) / kCalls;
    }
    static void Row(const char* title, const Side& extra, const Side& plain, double target)
    {
        Times extras, plains, ratios;
        Measure(extra);
        Measure(plain);
        for (int pair = 0; pair < kPairs; ++pair) {
            const bool extraFirst = pair % 2 == 0;
            const double first = Measure(extraFirst ? extra : plain);
            const double second = Measure(extraFirst ? plain : extra);
            extras.push_back(extraFirst ? first : second);
            plains.push_back(extraFirst ? second : first);
            ratios.push_back(extras.back() / plains.back());
        }
        std::printf("%-32s |%9.2f |%9.2f |%7.3f |%6.3f to %5.3f |%7.2f\n", title,
                    Quantile(extras, 0.5), Quantile(plains, 0.5), Quantile(ratios, 0.5),
                    Quantile(ratios, 0.25), Quantile(ratios, 0.75), target);
        std::fflush(stdout);
    }
    static void IterateUntil(const bool& done)
    {
        while (!done) {
            g_main_context_iteration(nullptr, TRUE);
        }
    }

    void Send()
    {
        TCMessage wanted;
        m_Client->replied = false;
        m_Client->SendMessage(kPlain, &m_Message, false, &wanted);
        IterateUntil(m_Client->replied);
    }
    void Callback()
    {
        bool done = false;
        m_Call.Start(*m_Client, kPlain, m_Message,
                     [&done](const TCCallResult& result) { done = static_cast<bool>(result); });
        IterateUntil(done);
    }
    void Await()
    {
        bool done = false;
        AwaitOne(done);
        IterateUntil(done);
    }
    Coroutine AwaitOne(bool& done)
    {
        const TCCallResult result = co_await m_Call.Await(*m_Client, kPlain, m_Message);
        done = static_cast<bool>(result);
    }
    void Call(const char* dest)
    {
        TCMessage reply;
        if (!m_Client->SendMessage(dest, &m_Message, true, &reply)) {
            g_error("call to %s failed", dest);
        }
    }

    TCScope<Client> m_Client;
    TCMessage m_Message;
    TCCall m_Call;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1) {
        RunService(argv[1]);
    }
    const Support::ChildProcess plain({"/proc/self/exe", kPlain});
    const Support::ChildProcess deferred({"/proc/self/exe", kDeferred});
    const Support::ChildProcess checked({"/proc/self/exe", kChecked});
    std::printf("Medians in us, of %d pairs; the spread is that of the middle half.\n\n", kPairs);
    std::printf("%-32s |%9s |%9s |%7s |%15s |%7s\n", "row", "extra", "plain", "ratio", "spread",
                "target");
    Bench().Run();
    return 0;
}
