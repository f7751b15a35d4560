// SPDX-License-Identifier: MIT
// Listens to the broadcaster until three of its signals have arrived.
#include <cstdio>

#include "MainLoop.h"
#include "sennet.h"

using namespace Velmora;

namespace {

struct Listener
{
    MainLoop loop;
    int heard = 0;

    static void OnTick(const char* from, const char* signal, TCMessage* message, void* data)
    {
        auto* const listener = static_cast<Listener*>(data);
        std::printf("%s from %s: %s\n", signal, from, message->GetMessage().c_str());
        if (++listener->heard == 3) {
            listener->loop.Quit();
        }
    }
};

} // namespace

int main()
{
    SetAppName("listener");
    Listener listener;
    TCScope<TCServer> proxy("example.listener", TCServer::SERVER_TYPE_PROXY);
    if (!proxy || !proxy->SubscribeSignal("example.clock", "tick", &Listener::OnTick, &listener)) {
        return 1;
    }
    listener.loop.Run();
    return 0;
}
