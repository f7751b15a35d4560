// SPDX-License-Identifier: MIT
// The command "listen": shows signals until SIGINT or SIGTERM.
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "BusDaemon.h"
#include "BusLoop.h"
#include "CommandLine.h"
#include "CommandTable.h"
#include "Failure.h"
#include "MessageFormat.h"
#include "OutputWriter.h"
#include "Printable.h"
#include "ServiceNames.h"
#include "TimeFormat.h"
#include "ToolServer.h"

namespace Ctl {

using Velmora::TCMessage;

namespace {

// The signals to subscribe to.
struct SignalFilter
{
    std::optional<std::string> from; // not set: of any service
    std::vector<std::string> names;
};

SignalFilter ReadFilter(const std::vector<std::string>& arguments, const StringOption& from,
                        bool any)
{
    if (any && from.IsGiven()) {
        throw Failure(kUsage, "--any and --from cannot be used together");
    }
    SignalFilter filter{std::nullopt, arguments};
    if (from.IsGiven()) {
        filter.from = from.Value();
    } else if (!any && arguments.size() > 1) {
        filter.from = arguments.front();
        filter.names.erase(filter.names.begin());
    }
    if (filter.from) {
        RequireBusName(*filter.from);
    }
    for (const std::string& signal : filter.names) {
        RequireSignalName(signal);
    }
    return filter;
}

class Listener
{
public:
    explicit Listener(bool json)
        : m_Output(json), m_Server(kToolName, ToolServer::SERVER_TYPE_PROXY), m_Loop(m_Server.Bus())
    {}

    void Subscribe(const SignalFilter& filter)
    {
        const char* const from = filter.from ? filter.from->c_str() : nullptr;
        for (const std::string& signal : filter.names) {
            if (!m_Server.SubscribeSignal(from, signal.c_str(), &Listener::OnSignal, this)) {
                throw Failure(kFailed, "cannot subscribe to " + signal + "; " + kSeeLog);
            }
        }
        // GDBus subscribes without waiting. The bus handles requests in order, so after this answer
        // all subscriptions are active.
        CallBusDaemon(m_Server.Bus(), "org.freedesktop.DBus", "GetId", nullptr, "(s)");
    }

    int Run()
    {
        m_Loop.EndOnSignals();
        m_Output.DropForSlowReader();
        std::fputs("sennetctl listen: listening\n", stderr);
        m_Loop.Run();
        return m_Output.Finish();
    }

private:
    static void OnSignal(const char* from, const char* signal, TCMessage* message, void* data)
    {
        static_cast<Listener*>(data)->Show(from, signal, *message);
    }

    void Show(const char* from, const char* signal, const TCMessage& message)
    {
        const gint64 now = g_get_real_time();
        bool written = false;
        if (m_Output.IsJson()) {
            Json::Value record;
            record["time"] = IsoTime(now);
            record["signal"] = signal;
            record["from"] = from != nullptr ? Json::Value(from) : Json::Value();
            AddContent(record, message);
            written = m_Output.WriteRecord(record);
        } else {
            written = m_Output.WriteText(
                ClockTime(now) + " " + m_Output.Paint(OutputWriter::Colour::Blue, signal) +
                " from " + PrintableName(from != nullptr ? from : "?") +
                DescribeCodeAndType(message) + "\n" + DescribeContent(message, "    ", true));
        }
        if (!written) {
            m_Loop.Quit();
        }
    }

    OutputWriter m_Output;
    ToolServer m_Server;
    BusLoop m_Loop;
};

} // namespace

int RunListen(CommandLine& line)
{
    StringOption from;
    gboolean any = FALSE;
    line.Add({
        {"from", 'f', 0, G_OPTION_ARG_FILENAME, from.Target(),
         "Show signals of this service; all arguments are signal names", "SERVICE"},
        {"any", 'a', 0, G_OPTION_ARG_NONE, &any,
         "Show signals of any service; all arguments are signal names", nullptr},
    });
    line.Parse();
    const SignalFilter filter = ReadFilter(line.Arguments(), from, any != FALSE);
    Listener listener(line.WantsJson());
    listener.Subscribe(filter);
    return listener.Run();
}

} // namespace Ctl
