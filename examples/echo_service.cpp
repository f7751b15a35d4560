// A service that answers every message with the message itself, until it is told to end.
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
    // On the thread that runs the main loop.
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
    loop.Run(); // the bus calls in from here
    return 0;
}
