// sennetctl listen
#include <cstdio>
#include <optional>

#include "BusLoop.h"
#include "CommandLine.h"
#include "Endpoint.h"
#include "Failure.h"
#include "Log.h"
#include "Output.h"
#include "Text.h"

namespace Ctl {

using Velmora::TCMessage;
using Velmora::TCServer;

namespace {

// What the arguments ask for.
struct Wanted
{
    std::optional<std::string> from; // nothing means anybody
    std::vector<std::string> signalNames;
};

Wanted ReadWords(const std::vector<std::string>& words, const OptionText& from, bool anybody)
{
    if (anybody && from.IsGiven()) {
        throw Failure(kUsage, "--any and --from exclude each other");
    }
    Wanted wanted{std::nullopt, words};
    if (from.IsGiven()) {
        wanted.from = from.Value();
    } else if (!anybody && words.size() > 1) {
        wanted.from = words.front();
        wanted.signalNames.erase(wanted.signalNames.begin());
    }
    if (wanted.from) {
        RequireBusName(*wanted.from);
    }
    for (const std::string& signal : wanted.signalNames) {
        RequireSignalName(signal);
    }
    return wanted;
}

class Listener
{
public:
    explicit Listener(bool json)
        : m_Output(json), m_Endpoint(kToolName, TCServer::SERVER_TYPE_PROXY),
          m_Loop(m_Endpoint.Bus())
    {}

    void Subscribe(const Wanted& wanted)
    {
        const char* const from = wanted.from ? wanted.from->c_str() : nullptr;
        for (const std::string& signal : wanted.signalNames) {
            if (!m_Endpoint.SubscribeSignal(from, signal.c_str(), &Listener::OnSignal, this)) {
                throw Failure(kFailed, "cannot subscribe to " + signal + ": " + LastError());
            }
        }
        // Its answer comes after the bus has seen the subscriptions.
        CallBus(m_Endpoint.Bus(), "org.freedesktop.DBus", "GetId", nullptr, "(s)");
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
                ClockTime(now) + " " + m_Output.Paint(Output::Colour::Blue, signal) + " from " +
                PrintableName(from != nullptr ? from : "?") + DescribeKind(message) + "\n" +
                DescribeContent(message, "    ", true));
        }
        if (!written) {
            m_Loop.Quit();
        }
    }

    Output m_Output;
    Endpoint m_Endpoint;
    BusLoop m_Loop;
};

} // namespace

int RunListen(CommandLine& line)
{
    OptionText from;
    gboolean anybody = FALSE;
    line.Add({
        {"from", 'f', 0, G_OPTION_ARG_FILENAME, from.Target(),
         "Signals of this service; all arguments are signals", "SERVICE"},
        {"any", 'a', 0, G_OPTION_ARG_NONE, &anybody,
         "Signals of anybody; all arguments are signals", nullptr},
    });
    line.Parse();
    const Wanted wanted = ReadWords(line.Words(), from, anybody != FALSE);
    Listener listener(line.WantsJson());
    listener.Subscribe(wanted);
    return listener.Run();
}

} // namespace Ctl
