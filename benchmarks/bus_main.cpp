// SPDX-License-Identifier: MIT
// Compares endpoints on a bus with the same exchange on raw GDBus, in alternating rounds.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BusPeers.h"
#include "ChildProcess.h"
#include "TCServer.h"
#include "TCTask.h"

namespace {

using namespace Velmora;
using namespace Benchmarks;

using Times = std::vector<double>; // microseconds

const std::string kJson =
    R"({"name":"sensor-17","room":"kitchen","celsius":21.5,"humidity":48,"ok":true,"tags":["a","b","c"],"n":42})";
const std::string kPlain(100, 'p');

double Now()
{
    return static_cast<double>(g_get_monotonic_time());
}

double Quantile(Times times, double share)
{
    std::sort(times.begin(), times.end());
    return times[std::min(times.size() - 1,
                          static_cast<std::size_t>(share * static_cast<double>(times.size())))];
}

void Measure(Times& times, int count, const std::function<void()>& once)
{
    for (int i = 0; i < count; ++i) {
        const double start = Now();
        once();
        times.push_back(Now() - start);
    }
}

// Measures both sides in alternating rounds. Each call of a side handles `items` items.
void Row(const char* title, int rounds, int count, int items, double target,
         const std::function<void()>& ours, const std::function<void()>& plain)
{
    Times oursTimes, plainTimes, warmUp;
    Measure(warmUp, 1, ours);
    Measure(warmUp, 1, plain);
    for (int round = 0; round < rounds; ++round) {
        if (round % 2 == 0) {
            Measure(oursTimes, count, ours);
        }
        Measure(plainTimes, count, plain);
        if (round % 2 != 0) {
            Measure(oursTimes, count, ours);
        }
    }
    const double oursMedian = Quantile(oursTimes, 0.5) / items;
    const double plainMedian = Quantile(plainTimes, 0.5) / items;
    std::printf("%-36s |%11.2f |%11.2f |%8.3f |%7.3f |%11.2f |%11.2f |%10.0f\n", title, oursMedian,
                plainMedian, oursMedian / plainMedian, target, Quantile(oursTimes, 0.99) / items,
                Quantile(plainTimes, 0.99) / items, 1e6 / oursMedian);
    std::fflush(stdout);
}

// This program in a process of its own, in another role.
struct Process : Support::ChildProcess
{
    explicit Process(const char* role) : ChildProcess({"/proc/self/exe", role}) {}
};

class Emitter : public TCServer
{
public:
    Emitter() : TCServer("bench.emitter", SERVER_TYPE_SERVICE) {}
    int replies = 0;

protected:
    bool IfMessageReplied(const char* /*from*/, const TCMessage* /*message*/) override
    {
        ++replies;
        return true;
    }
};

class Local : public TCServer, public TCTask
{
public:
    Local() : TCServer("local", SERVER_TYPE_ACTIVITY), TCTask("local") {}
    std::atomic<int> received{0};

protected:
    bool IfMessageReceived(const char* /*from*/, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        *reply = *message;
        ++received;
        return true;
    }
};

TCMessage Message(const std::string& text, unsigned int size = 0)
{
    TCMessage message;
    message.SetMessage(text);
    message.m_Type = size > 0 ? kSink : "echo";
    const std::vector<unsigned char> bytes(size, 7);
    message.SetBuffer(bytes.data(), size);
    return message;
}

class Bench
{
public:
    Bench() : m_Bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr))
    {
        m_Emitter.CreateDBusServer();
        while (!m_Emitter.IsServiceAvailable(kMoved) || !m_Emitter.IsServiceAvailable(kRaw)) {
            g_usleep(1000);
        }
        g_dbus_connection_signal_subscribe(
            m_Bus, nullptr, "bench.ack", "Done", nullptr, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
               gpointer bench) { ++static_cast<Bench*>(bench)->m_Acknowledged; },
            this, nullptr);
    }
    ~Bench()
    {
        m_Emitter.CloseDBusServer();
        g_object_unref(m_Bus);
    }
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    // The plain side returns the text as it is, or reads and writes it with jsoncpp as the library
    // does.
    void Calls()
    {
        const TCMessage message = Message(kJson);
        const auto ours = [&] { Call(kOurs, message); };
        const auto moved = [&] { Call(kMoved, message); };
        Row("call to a text", 10, 200, 1, 1.25, ours,
            [&] { RawCall(kRawPath, "echo", kJson, {}); });
        Row("call to one with JSON", 10, 200, 1, 1.25, ours,
            [&] { RawJsonCall(kRawPath, message.m_Json); });
        Row("moved call to a text", 10, 200, 1, 1.25, moved,
            [&] { RawCall(kRawMovedPath, "echo", kJson, {}); });
        Row("moved call to one with JSON", 10, 200, 1, 1.25, moved,
            [&] { RawJsonCall(kRawMovedPath, message.m_Json); });
        Row(
            "64 calls outstanding, each", 20, 5, 64, 1.25, [&] { OursOutstanding(message); },
            [this] { RawOutstanding(); });
        for (const std::size_t kib : {1U, 64U, 1024U}) {
            const TCMessage buffer = Message("x", static_cast<unsigned int>(kib * 1024));
            const std::vector<unsigned char> bytes(kib * 1024, 7);
            Row(("buffer of " + std::to_string(kib) + " KiB").c_str(), 21,
                kib == 1 ? 100 : (kib == 64 ? 3 : 1), 1, 1.05, [&] { Call(kOurs, buffer); },
                [&] { RawCall(kRawPath, kSink, "x", bytes); });
        }
    }

    void Signals(int listeners)
    {
        std::vector<std::unique_ptr<Process>> processes;
        m_Acknowledged = 0;
        for (int i = 0; i < listeners; ++i) {
            processes.push_back(std::make_unique<Process>("listen-ours"));
            processes.push_back(std::make_unique<Process>("listen-raw"));
        }
        IterateUntil([&] { return m_Acknowledged == 2 * listeners; });
        constexpr int batch = 500;
        TCMessage message = Message(kJson);
        const auto emit = [&](const std::function<void(bool last)>& one) {
            m_Acknowledged = 0;
            for (int i = 1; i <= batch; ++i) {
                one(i == batch);
            }
            IterateUntil([&] { return m_Acknowledged == listeners; });
        };
        Row(("signal to " + std::to_string(listeners) + ", each").c_str(), 15, 1, batch, 1.1,
            [&] {
                emit([&](bool last) {
                    message.m_Code = last ? 1 : 0;
                    m_Emitter.SendSignal("ours", &message);
                });
            },
            [&] {
                emit([&](bool last) {
                    g_dbus_connection_emit_signal(
                        m_Bus, nullptr, "/bench/emitter/message", "bench.emitter.message", "raw",
                        g_variant_new("(suss)", "bench.emitter", last ? 1U : 0U, "echo",
                                      kJson.c_str()),
                        nullptr);
                });
            });
    }

    void InProcess()
    {
        Local local;
        local.Create("local");
        local.CreateDBusServer();
        const struct
        {
            const char *direct, *event;
            TCMessage message;
            double target;
        } cases[] = {{"direct route to a bus call, JSON", "event route to a bus call, JSON",
                      Message(kJson), 1.0 / 40},
                     {"direct route to a bus call, text", "event route to a bus call, text",
                      Message(kPlain), 1.0 / 300}};
        for (const auto& c : cases) {
            constexpr int batch = 100;
            const auto bus = [&] {
                for (int i = 0; i < batch; ++i) {
                    Call(kOurs, c.message);
                }
            };
            Row(
                c.direct, 5, 3, batch, c.target,
                [&] {
                    for (int i = 0; i < batch; ++i) {
                        Call("local", c.message);
                    }
                },
                bus);
            Row(
                c.event, 5, 3, batch, 1,
                [&] {
                    local.received = 0;
                    for (int i = 0; i < batch; ++i) {
                        m_Emitter.SendMessage("local", &c.message, false, nullptr);
                    }
                    while (local.received < batch) {
                        g_usleep(10);
                    }
                },
                bus);
        }
        local.CloseDBusServer();
        local.AwaitHooks();
        local.TCTask::Destroy();
    }

private:
    template <typename Condition>
    static void IterateUntil(const Condition& condition)
    {
        while (!condition()) {
            g_main_context_iteration(nullptr, TRUE);
        }
    }

    void Call(const char* dest, const TCMessage& message)
    {
        TCMessage reply;
        if (!m_Emitter.SendMessage(dest, &message, true, &reply, 60000)) {
            g_error("call to %s failed", dest);
        }
    }

    static GVariant* RawBody(const char* type, const std::string& text,
                             const std::vector<unsigned char>& bytes)
    {
        if (bytes.empty()) {
            return g_variant_new("(suss)", "bench.emitter", 0U, type, text.c_str());
        }
        return g_variant_new("(suss@a(y))", "bench.emitter", 0U, type, text.c_str(),
                             g_variant_new_from_data(G_VARIANT_TYPE("a(y)"), bytes.data(),
                                                     bytes.size(), TRUE, nullptr, nullptr));
    }

    // Returns the text of the reply.
    std::string RawCall(const char* path, const char* type, const std::string& text,
                        const std::vector<unsigned char>& bytes)
    {
        GVariant* const reply = g_dbus_connection_call_sync(
            m_Bus, "bench.raw.message", path, "bench.raw.message",
            bytes.empty() ? "SendMessage" : "SendMessageWithBuffer", RawBody(type, text, bytes),
            nullptr, G_DBUS_CALL_FLAGS_NONE, 60000, nullptr, nullptr);
        if (reply == nullptr) {
            g_error("raw call failed");
        }
        const char* answer = nullptr;
        g_variant_get_child(reply, 3, "&s", &answer);
        std::string copy = answer;
        g_variant_unref(reply);
        return copy;
    }

    void RawJsonCall(const char* path, const Json::Value& value)
    {
        const std::string answer = RawCall(path, kWithJson, WriteJson(value), {});
        ReadJson(answer.c_str());
    }

    void OursOutstanding(const TCMessage& message)
    {
        TCMessage wanted;
        m_Emitter.replies = 0;
        for (int i = 0; i < 64; ++i) {
            m_Emitter.SendMessage(kOurs, &message, false, &wanted);
        }
        IterateUntil([this] { return m_Emitter.replies == 64; });
    }

    void RawOutstanding()
    {
        int replies = 0;
        for (int i = 0; i < 64; ++i) {
            g_dbus_connection_call(
                m_Bus, "bench.raw.message", "/bench/raw/message", "bench.raw.message",
                "SendMessage", RawBody("echo", kJson, {}), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                nullptr,
                [](GObject* bus, GAsyncResult* result, gpointer count) {
                    GVariant* const reply = g_dbus_connection_call_finish(
                        reinterpret_cast<GDBusConnection*>(bus), result, nullptr);
                    g_variant_unref(reply);
                    ++*static_cast<int*>(count);
                },
                &replies);
        }
        IterateUntil([&] { return replies == 64; });
    }

    GDBusConnection* m_Bus;
    Emitter m_Emitter;
    int m_Acknowledged = 0;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1) {
        return RunPeer(argv[1]);
    }
    const Process ours("ours"), raw("raw");
    Bench bench;
    std::printf("Medians in us; the ratio is ours to plain GDBus, or to a bus call of ours.\n\n");
    std::printf("%-36s |%11s |%11s |%8s |%7s |%11s |%11s |%10s\n", "row", "ours", "plain", "ratio",
                "target", "ours p99", "plain p99", "ours/s");
    bench.Calls();
    bench.Signals(1);
    bench.Signals(4);
    bench.InProcess();
    return 0;
}
