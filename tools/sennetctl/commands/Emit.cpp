// SPDX-License-Identifier: MIT
// The command "emit": broadcasts a signal.
#include <string>

#include "CommandLine.h"
#include "CommandTable.h"
#include "Failure.h"
#include "MessageArguments.h"
#include "ServiceNames.h"
#include "ToolServer.h"

namespace Ctl {

int RunEmit(CommandLine& line)
{
    MessageArguments arguments(line);
    StringOption as;
    line.Add({{"as", 'A', 0, G_OPTION_ARG_FILENAME, as.Target(),
               "Emit as this service (default: sennetctl)", "SERVICE"}});
    line.Parse();
    const std::string& signal = line.Arguments()[0];
    const std::string service = as.Value(kToolName);
    RequireSignalName(signal);
    RequireBusName(service);
    const Velmora::TCMessage message = arguments.Build(line);

    // A running service would lose its name to the tool, which would then get its calls.
    if (as.IsGiven() &&
        ToolServer(kToolName, ToolServer::SERVER_TYPE_PROXY).IsServiceAvailable(service.c_str())) {
        throw Failure(kFailed,
                      "service " + service + " is already running; it must emit its own signals");
    }
    // No main loop runs, so the server handles no calls and emits no start signal.
    ToolServer server(service, ToolServer::SERVER_TYPE_SERVICE);
    if (!server.SendSignal(signal.c_str(), &message)) {
        throw Failure(kFailed, "cannot emit " + signal + "; " + kSeeLog);
    }
    if (!server.IsServiceAvailable(service.c_str())) {
        // The bus has refused the name. Let GDBus see that, or it would try to release the name.
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
    }
    return kDone;
}

} // namespace Ctl
