// SPDX-License-Identifier: MIT
// A service that closes in the documented order while calls wait on its task, then exits at once:
// closing_service CALLS closes when that many calls have arrived.
#include <cstdlib>
#include <future>

#include <unistd.h>

#include "sennet.h"

namespace {

class Closing : public Velmora::TCServer, public Velmora::TCTask
{
public:
    Closing(GMainLoop* loop, int calls)
        : TCServer("closing", SERVER_TYPE_SERVICE), TCTask("closing"), m_Loop(loop),
          m_Awaited(calls)
    {}
    std::promise<void> closed;

protected:
    bool IfTransferMessage(const char* /*from*/, const Velmora::TCMessage* /*message*/,
                           Velmora::TCEventIO*& target) override
    {
        target = this;
        if (--m_Awaited == 0) {
            g_main_loop_quit(m_Loop);
        }
        return true;
    }
    bool IfMessageReceived(const char* /*from*/, const Velmora::TCMessage* message,
                           Velmora::TCMessage* reply, const char* /*signalName*/) override
    {
        m_Closed.wait();
        *reply = *message;
        return true;
    }

private:
    GMainLoop* m_Loop;
    int m_Awaited;
    std::shared_future<void> m_Closed = closed.get_future().share();
};

} // namespace

int main(int /*argc*/, char** argv)
{
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    Closing service(loop, std::atoi(argv[1]));
    if (!service.Create("closing") || !service.CreateDBusServer()) {
        return 1;
    }
    g_main_loop_run(loop);
    service.CloseDBusServer();
    service.closed.set_value();
    service.AwaitHooks();
    service.Destroy();
    _exit(0);
}
