// SPDX-License-Identifier: MIT
// A service that replies to every message with the same message.
#include <cstdio>

#include "MainLoop.h"
#include "sennet.h"

using namespace Velmora;

namespace {

class EchoService : public TCServer
{
public:
    EchoService() : TCServer("example.echo", SERVER_TYPE_SERVICE) {}

protected:
    // Runs on the thread of the main loop.
    bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        std::printf("%s says %s\n", from != nullptr ? from : "somebody",
                    message->GetString().c_str());
        *reply = *message;
        return true;
    }
};

} // namespace

int main()
{
    SetAppName("echo_service");
    MainLoop loop;
    const TCScope<EchoService> service; // open until the end of the function
    if (!service) {
        return 1;
    }
    loop.Run(); // calls the hooks when messages arrive
    return 0;
}
