// SPDX-License-Identifier: MIT
// The command "monitor": shows the messages and signals between services.
#include <algorithm>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "BusDaemon.h"
#include "BusLoop.h"
#include "CommandLine.h"
#include "CommandTable.h"
#include "MessageDecoder.h"
#include "MessageFormat.h"
#include "OutputWriter.h"
#include "Printable.h"
#include "ServiceNames.h"
#include "TimeFormat.h"

namespace Ctl {

namespace {

const char* KindName(MonitoredMessage::Kind kind)
{
    const char* const names[] = {"call", "reply", "error", "signal"};
    return names[static_cast<int>(kind)];
}

Json::Value Record(const MonitoredMessage& message)
{
    Json::Value record;
    record["time"] = IsoTime(message.time);
    record["kind"] = KindName(message.kind);
    record["from"] = message.from;
    record["sender"] = message.sender;
    if (message.kind != MonitoredMessage::Kind::Signal) {
        record["to"] = message.to;
        record["destination"] = message.destination;
    }
    record["serial"] = message.serial;
    if (message.kind != MonitoredMessage::Kind::Reply) {
        record[message.kind == MonitoredMessage::Kind::Call ? "method" : KindName(message.kind)] =
            message.member;
    }
    if (message.latency) {
        record["latency_us"] = Json::Int64{*message.latency};
    }
    if (!message.unknownBodyType.empty()) {
        record["body_type"] = message.unknownBodyType;
    }
    AddContent(record, message.content);
    return record;
}

std::string Describe(const MonitoredMessage& message, const OutputWriter& output)
{
    using Colour = OutputWriter::Colour;
    static constexpr Colour colours[] = {Colour::Yellow, Colour::Green, Colour::Red, Colour::Blue};
    char kind[16];
    std::snprintf(kind, sizeof kind, "%-6s", KindName(message.kind));
    std::string text = ClockTime(message.time) + " " +
                       output.Paint(colours[static_cast<int>(message.kind)], kind) + " " +
                       PrintableName(message.from);
    if (message.kind != MonitoredMessage::Kind::Signal) {
        text += " -> " + PrintableName(message.to) + " #" + std::to_string(message.serial);
    }
    if (message.kind != MonitoredMessage::Kind::Reply) {
        text += " " + Printable(message.member);
    }
    if (message.latency) {
        text += " after " + Milliseconds(*message.latency);
    }
    if (!message.unknownBodyType.empty()) {
        text += " unknown body " + message.unknownBodyType;
    }
    text += DescribeCodeAndType(message.content) + "\n";
    return text + DescribeContent(message.content, "    ", true);
}

// Passes the messages from GDBus's thread, which captures them, to the main loop.
class CaptureQueue
{
public:
    void Push(CapturedMessage message)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Messages.push_back(std::move(message));
    }

    std::optional<CapturedMessage> Pop()
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_Messages.empty()) {
            return std::nullopt;
        }
        CapturedMessage next = std::move(m_Messages.front());
        m_Messages.pop_front();
        return next;
    }

private:
    std::mutex m_Mutex;
    std::deque<CapturedMessage> m_Messages; // under m_Mutex
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
        // No filter runs after this, because a closed connection reads nothing.
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
        CallBusDaemon(m_Bus.get(), "org.freedesktop.DBus.Monitoring", "BecomeMonitor",
                      g_variant_new("(^asu)", rules, 0U), "()");
        // Ask after the monitor has started, so that no change of an owner is missed. A monitor's
        // own connection cannot send requests.
        m_Decoder.SetServices(ListServices(ConnectToBus().get()));
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
    // On GDBus's thread. Keeps the messages of others from GDBus, which would reply to them; the
    // bus disconnects a monitor that sends.
    static GDBusMessage* OnMessage(GDBusConnection* bus, GDBusMessage* message, gboolean incoming,
                                   gpointer data)
    {
        const char* const destination = g_dbus_message_get_destination(message);
        if (incoming == FALSE ||
            g_strcmp0(destination, g_dbus_connection_get_unique_name(bus)) == 0) {
            return message;
        }
        auto* const self = static_cast<Monitor*>(data);
        self->m_Captured.Push({BusMessagePtr(message), g_get_monotonic_time(), g_get_real_time()});
        g_idle_add(&Monitor::OnCaptured, self);
        return nullptr;
    }

    static gboolean OnCaptured(gpointer data)
    {
        auto* const self = static_cast<Monitor*>(data);
        while (const std::optional<CapturedMessage> captured = self->m_Captured.Pop()) {
            if (const auto message = self->m_Decoder.Decode(*captured);
                message && self->IsWanted(*message) && !self->Show(*message)) {
                self->m_Loop.Quit();
            }
        }
        return G_SOURCE_REMOVE;
    }

    bool IsWanted(const MonitoredMessage& message) const
    {
        const std::string names =
            "," + message.from + "," + message.to + "," + message.subject + ",";
        return m_Services.empty() ||
               std::any_of(m_Services.begin(), m_Services.end(), [&names](const auto& service) {
                   return names.find("," + service + ",") != std::string::npos;
               });
    }

    bool Show(const MonitoredMessage& message)
    {
        return m_Output.IsJson() ? m_Output.WriteRecord(Record(message))
                                 : m_Output.WriteText(Describe(message, m_Output));
    }

    OutputWriter m_Output;
    const std::vector<std::string> m_Services; // empty: all
    MessageDecoder m_Decoder;
    CaptureQueue m_Captured;
    ConnectionPtr m_Bus;
    BusLoop m_Loop;
    const guint m_Filter;
};

} // namespace

int RunMonitor(CommandLine& line)
{
    line.Parse();
    std::vector<std::string> services = line.Arguments();
    for (const std::string& service : line.Arguments()) {
        services.push_back(ServiceName(RequireBusName(service))); // as the bus spells it
    }
    Monitor monitor(line.WantsJson(), std::move(services));
    monitor.Start();
    return monitor.Run();
}

} // namespace Ctl
