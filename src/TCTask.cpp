// SPDX-License-Identifier: MIT
#include "TCTask.h"

#include <atomic>
#include <memory>
#include <utility>

#include "GLibPtr.h"
#include "Locks.h"
#include "TCEventIOPrivate.h"
#include "extra/OnContext.h"

namespace Velmora {

using namespace Internal;

struct __attribute__((visibility("hidden"))) TCTask::Private
{
    class FailedSetupMark;

    static bool StartThread(TCTask& task, const char* name, bool isSetUp, GError** error);

    // Takes back what a failed Create has set up. The IOs that the client has added stay in the
    // list, also those added since; the next set-up again adds those that the set-up itself has
    // added. If a Final throws, everything stays as it was.
    static void DropFailedSetup(TCTask& task);

    static void SetSettingUp(TCTask& task, bool settingUp);

    // One reference to the context of a task whose set-up is over; null if the task has not started
    // or has ended. An exit event that is sent earlier would be refused, and the loop would run for
    // ever.
    static GMainContext* RefContextAfterSetup(TCTask& task);

    // Runs once on the loop while Destroy waits, in case its exit event was refused, or came to a
    // queue that does not dispatch any more. Everything else that may happen to the event is seen
    // where it happens.
    static void InsistOnExit(TCTask& task);
};

namespace {

const char* NameOrEmpty(const char* name)
{
    if (name == nullptr) {
        VELMORA_LOG_NULL("name");
        return "";
    }
    return name;
}

} // namespace

// At the end of a set-up on the calling thread: if it has failed, notes how much of the list it has
// left, and that no loop will run.
class TCTask::Private::FailedSetupMark
{
public:
    explicit FailedSetupMark(TCTask& task) : m_Task(task) {}
    ~FailedSetupMark()
    {
        if (m_Task.m_Thread == nullptr && m_Task.m_TaskLoop != nullptr) {
            m_Task.m_StaleIOs = g_list_length(m_Task.m_IOList);
            TCEventIO::Private::Stop(m_Task);
        }
    }
    FailedSetupMark(const FailedSetupMark&) = delete;
    FailedSetupMark& operator=(const FailedSetupMark&) = delete;

private:
    TCTask& m_Task;
};

TCTask::TCTask(const char* name) : TCEventIO(NameOrEmpty(name)) {}

TCTask::~TCTask()
{
    VELMORA_LOGI("");
    // A failed Create has left these; Destroy leaves nothing.
    g_list_free(m_IOList);
    if (m_TaskLoop != nullptr) {
        TCEventIO::Final(); // the exit event of the failed Create is still queued
        g_main_loop_unref(m_TaskLoop);
    }
    if (m_Context != nullptr) {
        g_main_context_unref(m_Context);
    }
}

bool TCTask::Create(const char* name, bool here, unsigned long unused)
{
    if (!m_NewThread(name, unused, here)) {
        VELMORA_LOGE("Create thread fail!");
        return false;
    }
    return true;
}

bool TCTask::m_NewThread(const char* name, unsigned long /*unused*/, bool here)
{
    if (m_Thread != nullptr) {
        VELMORA_LOGE("task has a thread already");
        return false;
    }
    Private::DropFailedSetup(*this);
    const Private::FailedSetupMark mark(*this);
    if (here && !m_InitMainLoop()) {
        Destroy();
        return false;
    }
    GError* raw = nullptr;
    const bool started = Private::StartThread(*this, name, here, &raw);
    if (const ErrorPtr error(raw); error) {
        VELMORA_LOGE("Thread created fail,%s", error->message);
    }
    return started;
}

bool TCTask::Private::StartThread(TCTask& task, const char* name, bool isSetUp, GError** error)
{
    // A Destroy on another thread must not come between the start of the thread and its record.
    const Lock lock(task.m_DestroyMutex);
    SetSettingUp(task, !isSetUp);
    GThread* const thread = g_thread_try_new(name, &TCTask::m_ThreadProcess, &task, error);
    if (thread == nullptr) {
        SetSettingUp(task, false);
        return false;
    }
    task.m_Thread = thread;
    return true;
}

void TCTask::Private::DropFailedSetup(TCTask& task)
{
    if (task.m_StaleIOs == 0) {
        return;
    }
    ListPtr kept;
    bool addedBySetup = false;
    unsigned int index = 0;
    for (const GList* node = task.m_IOList; node != nullptr; node = node->next, ++index) {
        auto* const io = static_cast<TCIOBase*>(node->data);
        addedBySetup = (addedBySetup || io == &task) && index < task.m_StaleIOs;
        if (!addedBySetup && g_list_find(kept.get(), io) == nullptr) {
            kept.reset(g_list_append(kept.release(), io));
        }
    }
    task.m_Destroy();
    task.m_IOList = kept.release();
    task.m_StaleIOs = 0;
}

void* TCTask::m_ThreadProcess(void* data)
{
    auto* const task = static_cast<TCTask*>(data);
    task->m_Thread = g_thread_self(); // Create may not have stored it yet
    const bool ready = task->m_InitMainLoop();
    Private::SetSettingUp(*task, false);
    if (ready) {
        task->t_Main();
    }
    task->m_Destroy();
    return data;
}

bool TCTask::m_InitMainLoop()
{
    if (m_TaskLoop != nullptr) {
        return true;
    }
    if (m_Context == nullptr) {
        m_Context = g_main_context_new();
    }
    m_TaskLoop = g_main_loop_new(m_Context, FALSE);
    if (m_TaskLoop == nullptr) {
        VELMORA_LOGE("Failed to create the mainloop");
        return false;
    }
    AddIO(this);
    t_AddIO();
    for (const GList* node = m_IOList; node != nullptr; node = node->next) {
        VELMORA_LOGI("Init IO begin");
        auto* const io = static_cast<TCIOBase*>(node->data);
        if (io != nullptr && !io->Init(m_TaskLoop)) {
            VELMORA_LOGE("Init fail!");
            return false;
        }
    }
    if (!t_Create()) {
        VELMORA_LOGE("fail!");
        return false;
    }
    return true;
}

void TCTask::Private::SetSettingUp(TCTask& task, bool settingUp)
{
    const Lock lock(task.m_StateMutex);
    task.m_SettingUp = settingUp;
    task.m_SetupOver.notify_all();
}

void TCTask::AddIO(TCIOBase* io)
{
    m_IOList = g_list_append(m_IOList, io);
    VELMORA_LOGI("coroutine num : %d", static_cast<int>(g_list_length(m_IOList)));
}

void TCTask::t_AddIO() {}

bool TCTask::t_Create()
{
    return true;
}

void TCTask::t_Main()
{
    VELMORA_LOGI("begin");
    GMainLoop* const loop = m_TaskLoop;
    g_main_loop_run(loop);
    VELMORA_LOGI("SERVICE %p End!", static_cast<void*>(loop));
}

void TCTask::t_Destroy() {}

void TCTask::m_Destroy()
{
    VELMORA_LOGI("");
    TCEventIO::Private::Stop(*this);
    for (const GList* node = m_IOList; node != nullptr; node = node->next) {
        VELMORA_LOGI("Final IO begin");
        auto* const io = static_cast<TCIOBase*>(node->data);
        if (io != nullptr) {
            io->Final();
        }
    }
    g_list_free(std::exchange(m_IOList, nullptr));
    t_Destroy();

    {
        // From now on no thread gets the task's loop. A thread that got it under this lock holds a
        // reference.
        const Lock lock(m_QueueMutex);
        m_MainLoop = nullptr;
    }
    LoopPtr loop;
    ContextPtr context; // released after the lock: this may destroy the client's sources
    const Lock lock(m_StateMutex);
    loop.reset(m_TaskLoop.exchange(nullptr));
    context.reset(std::exchange(m_Context, nullptr));
}

void TCTask::Destroy()
{
    if (m_Thread == g_thread_self()) {
        VELMORA_LOGE("Send event EVENT_EXIT_TASK to destroy when calling Destroy at the task what "
                     "you want to destroy!");
        return;
    }
    const Lock lock(m_DestroyMutex);
    ContextPtr context(Private::RefContextAfterSetup(*this));
    // What is posted to the context for InsistOnExit is not taken back here but destroyed with the
    // context, which another thread may hold (an alarm does) and release at any moment: GLib lets
    // nobody destroy a source of a context that is being freed.
    const auto waiting = std::make_shared<std::atomic<TCTask*>>(this);
    if (context) {
        TCEventIO::Private::Report(*this, TCEventIO::Private::PostExit(*this));
        if (m_Thread != nullptr) {
            PostToContext(context.get(), [waiting] {
                if (TCTask* const task = *waiting; task != nullptr) {
                    Private::InsistOnExit(*task);
                }
            });
        }
        context.reset(); // the task's thread must be the last to release it
    }
    if (m_Thread != nullptr) {
        g_thread_join(m_Thread);
    }
    *waiting = nullptr;
    m_Thread = nullptr;
    VELMORA_LOGD("task is destroyed!");
}

GMainContext* TCTask::Private::RefContextAfterSetup(TCTask& task)
{
    Lock lock(task.m_StateMutex);
    while (task.m_SettingUp) {
        lock.Wait(task.m_SetupOver);
    }
    return task.m_TaskLoop != nullptr ? g_main_context_ref(task.m_Context) : nullptr;
}

void TCTask::Private::InsistOnExit(TCTask& task)
{
    if (g_main_loop_is_running(task.m_TaskLoop)) { // else only a nested loop still runs
        TCEventIO::Private::PursueExit(task);
    }
}

const char* Internal::QueueName(const TCTask& task)
{
    return TCEventIO::Private::Name(task);
}

} // namespace Velmora
