// sennetctl monitor
#include <algorithm>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Bus.h"
#include "BusLoop.h"
#include "CommandLine.h"
#include "Failure.h"
#include "Output.h"
#include "Text.h"
#include "Traffic.h"

namespace Ctl {

namespace {

const char* KindName(Transfer::Kind kind)
{
    const char* const names[] = {"call", "reply", "error", "signal"};
    return names[static_cast<int>(kind)];
}

Json::Value Record(const Transfer& transfer)
{
    Json::Value record;
    record["time"] = IsoTime(transfer.time);
    record["kind"] = KindName(transfer.kind);
    record["from"] = transfer.from;
    record["sender"] = transfer.sender;
    if (transfer.kind != Transfer::Kind::Signal) {
        record["to"] = transfer.to;
        record["destination"] = transfer.destination;
    }
    record["serial"] = transfer.serial;
    if (transfer.kind != Transfer::Kind::Reply) {
        record[transfer.kind == Transfer::Kind::Call ? "method" : KindName(transfer.kind)] =
            transfer.member;
    }
    if (transfer.latency) {
        record["latency_us"] = Json::Int64{*transfer.latency};
    }
    if (!transfer.unreadable.empty()) {
        record["body_type"] = transfer.unreadable;
    }
    AddContent(record, transfer.message);
    return record;
}

std::string Describe(const Transfer& transfer, const Output& output)
{
    static constexpr Output::Colour colours[] = {Output::Colour::Yellow, Output::Colour::Green,
                                                 Output::Colour::Red, Output::Colour::Blue};
    char kind[16];
    std::snprintf(kind, sizeof kind, "%-6s", KindName(transfer.kind));
    std::string text = ClockTime(transfer.time) + " " +
                       output.Paint(colours[static_cast<int>(transfer.kind)], kind) + " " +
                       PrintableName(transfer.from);
    if (transfer.kind != Transfer::Kind::Signal) {
        text += " -> " + PrintableName(transfer.to) + " #" + std::to_string(transfer.serial);
    }
    if (transfer.kind != Transfer::Kind::Reply) {
        text += " " + Printable(transfer.member);
    }
    if (transfer.latency) {
        text += " after " + Milliseconds(*transfer.latency);
    }
    if (!transfer.unreadable.empty()) {
        text += " unknown body " + transfer.unreadable;
    }
    text += DescribeKind(transfer.message) + "\n";
    return text + DescribeContent(transfer.message, "    ", true);
}

// Hands the messages from GDBus's thread, where they are stamped, to the main loop.
class Sightings
{
public:
    void Put(Sighting sighting)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Queue.push_back(std::move(sighting));
    }

    std::optional<Sighting> Take()
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_Queue.empty()) {
            return std::nullopt;
        }
        Sighting next = std::move(m_Queue.front());
        m_Queue.pop_front();
        return next;
    }

private:
    std::mutex m_Mutex;
    std::deque<Sighting> m_Queue; // under m_Mutex
};

class Monitor
{
public:
    Monitor(bool json, std::vector<std::string> services)
        : m_Output(json), m_Services(std::move(services)), m_Bus(ConnectPrivately()),
          m_Loop(m_Bus.get()),
          m_Filter(g_dbus_connection_add_filter(m_Bus.get(), &Monitor::OnMessage, this, nullptr))
    {}

    ~Monitor()
    {
        // Nothing is read from a closed connection, so no filter runs behind this.
        g_dbus_connection_close_sync(m_Bus.get(), nullptr, nullptr);
        g_dbus_connection_remove_filter(m_Bus.get(), m_Filter);
        while (g_idle_remove_by_data(this) != FALSE) {
        }
    }
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    void Start()
    {
        static const char* const rules[] = {"type='method_call',member='SendMessage'",
                                            "type='method_call',member='SendMessageWithBuffer'",
                                            "type='method_return'",
                                            "type='error'",
                                            "type='signal'",
                                            nullptr};
        CallBus(m_Bus.get(), "org.freedesktop.DBus.Monitoring", "BecomeMonitor",
                g_variant_new("(^asu)", rules, 0U), "()");
        // From now on changes of owners are seen. This connection may not ask any more.
        m_Traffic.SetServices(ListServices(ConnectToBus().get()));
    }

    int Run()
    {
        m_Loop.EndOnSignals();
        m_Output.DropForSlowReader();
        std::fputs("sennetctl monitor: monitoring\n", stderr);
        m_Loop.Run();
        return m_Output.Finish();
    }

private:
    // On GDBus's thread. What is not for this connection must not get on to GDBus, which would
    // answer it, and the bus ends a monitor that sends.
    static GDBusMessage* OnMessage(GDBusConnection* bus, GDBusMessage* message, gboolean incoming,
                                   gpointer data)
    {
        const char* const destination = g_dbus_message_get_destination(message);
        if (incoming == FALSE ||
            g_strcmp0(destination, g_dbus_connection_get_unique_name(bus)) == 0) {
            return message;
        }
        auto* const self = static_cast<Monitor*>(data);
        self->m_Sightings.Put({BusMessagePtr(message), g_get_monotonic_time(), g_get_real_time()});
        g_idle_add(&Monitor::OnSightings, self);
        return nullptr;
    }

    static gboolean OnSightings(gpointer data)
    {
        auto* const self = static_cast<Monitor*>(data);
        while (const std::optional<Sighting> sighting = self->m_Sightings.Take()) {
            if (const auto transfer = self->m_Traffic.Take(*sighting);
                transfer && self->IsWanted(*transfer) && !self->Show(*transfer)) {
                self->m_Loop.Quit();
            }
        }
        return G_SOURCE_REMOVE;
    }

    bool IsWanted(const Transfer& transfer) const
    {
        const std::string names =
            "," + transfer.from + "," + transfer.to + "," + transfer.subject + ",";
        return m_Services.empty() ||
               std::any_of(m_Services.begin(), m_Services.end(), [&names](const auto& service) {
                   return names.find("," + service + ",") != std::string::npos;
               });
    }

    bool Show(const Transfer& transfer)
    {
        return m_Output.IsJson() ? m_Output.WriteRecord(Record(transfer))
                                 : m_Output.WriteText(Describe(transfer, m_Output));
    }

    Output m_Output;
    const std::vector<std::string> m_Services; // empty: all
    Traffic m_Traffic;
    Sightings m_Sightings;
    ConnectionPtr m_Bus;
    BusLoop m_Loop;
    const guint m_Filter;
};

} // namespace

int RunMonitor(CommandLine& line)
{
    line.Parse();
    std::vector<std::string> services = line.Words();
    for (const std::string& service : line.Words()) {
        services.push_back(ServiceName(RequireBusName(service))); // as the bus knows it
    }
    Monitor monitor(line.WantsJson(), std::move(services));
    monitor.Start();
    return monitor.Run();
}

} // namespace Ctl
