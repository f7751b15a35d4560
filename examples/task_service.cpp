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

    int Sum() const { return m_Sum; }

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
    TCScope<Worker> worker; // creates task and server, and closes them in the right order
    if (!worker) {
        return 1;
    }
    loop.Run();
    const std::optional<int> sum = RunAndWait(&*worker, [&] { return worker->Sum(); });
    std::printf("the sum was %d\n", sum.value_or(0));
    return 0;
}
