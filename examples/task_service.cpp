// SPDX-License-Identifier: MIT
// A service with its own thread: the bus thread moves each message to the task, so that a slow one
// does not delay other endpoints.
#include <cstdio>
#include <mutex>

#include "MainLoop.h"
#include "sennet.h"

using namespace Velmora;

namespace {

class Worker : public TCServer, public TCTask
{
public:
    Worker() : TCServer("example.worker", SERVER_TYPE_SERVICE), TCTask("worker") {}

    int Sum()
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Sum;
    }

protected:
    bool IfTransferMessage(const char* /*from*/, const TCMessage* /*message*/,
                           TCEventIO*& target) override
    {
        target = this;
        return true;
    }

    // Runs on the task's thread and, when messages arrive so fast that the task's queue is full, at
    // the same time on the bus thread: what is used here needs a lock.
    bool IfMessageReceived(const char* /*from*/, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Sum += message->m_Json["add"].isInt() ? message->m_Json["add"].asInt() : 0;
        reply->m_Json["sum"] = m_Sum;
        return true;
    }

private:
    std::mutex m_Mutex;
    int m_Sum = 0; // guarded by m_Mutex
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
    // Runs on the task's thread, after the queued messages.
    const std::optional<int> sum = RunAndWait(&*worker, [&] { return worker->Sum(); });
    std::printf("the sum was %d\n", sum.value_or(0));
    return 0;
}
