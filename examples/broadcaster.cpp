// SPDX-License-Identifier: MIT
// A service that broadcasts a signal ten times a second.
#include <cstdio>

#include "MainLoop.h"
#include "sennet.h"

using namespace Velmora;

namespace {

struct Clock
{
    TCScope<TCServer> service{"example.clock", TCServer::SERVER_TYPE_SERVICE};
    int ticks = 0;

    static bool Tick(void* data)
    {
        auto* const clock = static_cast<Clock*>(data);
        TCMessage message;
        message.m_Json["count"] = ++clock->ticks;
        return clock->service->SendSignal("tick", &message);
    }
};

} // namespace

int main()
{
    SetAppName("broadcaster");
    MainLoop loop;
    Clock clock;
    if (!clock.service) {
        return 1;
    }
    TCAlarm alarm;
    alarm.Create(nullptr, 100, static_cast<unsigned long>(VELMORA_INFINITY)); // on the main loop
    alarm.SetAlarmCallback(&Clock::Tick, &clock);
    loop.Run();
    alarm.Destroy();
    return 0;
}
