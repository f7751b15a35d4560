// SPDX-License-Identifier: MIT
// A service that systemd may watch, and that comes back when the bus was restarted.
#include <cstdio>

#include "MainLoop.h"
#include "sennet-extra.h"

using namespace Velmora;

namespace {

class Watched : public TCServer, public TCTask
{
public:
    Watched() : TCServer("example.watched", SERVER_TYPE_SERVICE), TCTask("watched") {}

protected:
    bool IfTransferMessage(const char* /*from*/, const TCMessage* /*message*/,
                           TCEventIO*& target) override
    {
        target = this;
        return true;
    }
    bool IfMessageReceived(const char* /*from*/, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        *reply = *message;
        return true;
    }
};

} // namespace

int main()
{
    SetAppName("watched_service");
    MainLoop loop;
    TCScope<Watched> service;
    if (!service) {
        return 1;
    }
    TCReconnect reconnect;
    reconnect.Add(*service);
    TCWatchdog watchdog(*service, {&*service});
    reconnect.SetCallbacks([&] { watchdog.SetStatus("the bus is lost"); },
                           [&] { watchdog.SetStatus("serving again"); });
    watchdog.SetStatus("serving");
    loop.Run();
    return 0;
}
