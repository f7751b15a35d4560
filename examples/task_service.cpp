// A service with a thread of its own: the bus thread hands each message over to the task, so that a
// slow one holds up nobody else.
#include <cstdio>

#include "MainLoop.h"
#include "sennet.h"

using namespace Velmora;

namespace {

class Worker : public TCServer, public TCTask
{
public:
    Worker() : TCServer("example.worker", SERVER_TYPE_SERVICE), TCTask("worker") {}

    ~Worker() override
    {
        CloseDBusServer(); // 1. nothing new arrives
        AwaitHooks();      // 2. no hook runs on another thread, and none starts
        TCTask::Destroy(); // 3. what is still queued gets the error reply
    }

protected:
    bool IfTransferMessage(const char* /*from*/, const TCMessage* /*message*/,
                           TCEventIO*& target) override
    {
        target = this;
        return true;
    }

    // On the task's thread; what is used here alone needs no lock.
    bool IfMessageReceived(const char* /*from*/, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        m_Sum += message->m_Json["add"].isInt() ? message->m_Json["add"].asInt() : 0;
        std::printf("sum is %d\n", m_Sum);
        reply->m_Json["sum"] = m_Sum;
        return true;
    }

private:
    int m_Sum = 0;
};

} // namespace

int main()
{
    SetAppName("task_service");
    MainLoop loop;
    Worker worker;
    if (!worker.Create("worker") || !worker.CreateDBusServer()) {
        return 1;
    }
    loop.Run();
    return 0;
}
