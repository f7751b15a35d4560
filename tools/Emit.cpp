// sennetctl emit
#include "CommandLine.h"
#include "Endpoint.h"
#include "Failure.h"
#include "Log.h"
#include "MessageOptions.h"

namespace Ctl {

using Velmora::TCServer;

int RunEmit(CommandLine& line)
{
    MessageOptions options(line);
    OptionText name;
    line.Add({{"as", 'A', 0, G_OPTION_ARG_FILENAME, name.Target(),
               "Be that service for the moment (default: sennetctl)", "SERVICE"}});
    line.Parse();
    const std::string& signal = line.Words()[0];
    const std::string service = name.Value(kToolName);
    RequireSignalName(signal);
    RequireBusName(service);
    const Velmora::TCMessage message = options.Build(line);

    // The name would be taken from a service that runs, and its callers would come here.
    if (name.IsGiven() &&
        Endpoint(kToolName, TCServer::SERVER_TYPE_PROXY).IsServiceAvailable(service.c_str())) {
        throw Failure(kFailed, "the service " + service + " is running, and can emit itself");
    }
    // No loop runs: nothing is answered under the name, and no start signal goes out.
    Endpoint endpoint(service, TCServer::SERVER_TYPE_SERVICE);
    if (!endpoint.SendSignal(signal.c_str(), &message)) {
        throw Failure(kFailed, "cannot emit " + signal + ": " + LastError());
    }
    if (!endpoint.IsServiceAvailable(service.c_str())) {
        // GDBus would want to give back a name that the bus has refused, had it not seen that yet.
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
    }
    return kDone;
}

} // namespace Ctl
