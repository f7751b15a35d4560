#include "TCTask.h"

#include <utility>

#include "GLibPtr.h"
#include "MutexGuard.h"

namespace Velmora {

using namespace Internal;

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

// Notes how much of the list a set-up on the calling thread has left, however Create ends, and that
// no loop will run.
class TCTask::FailedSetupMark
{
public:
    explicit FailedSetupMark(TCTask& task) : m_Task(task) {}
    ~FailedSetupMark()
    {
        if (m_Task.m_Thread == nullptr && m_Task.m_TaskLoop != nullptr) {
            m_Task.m_StaleIOs = g_list_length(m_Task.m_IOList);
            m_Task.m_Stop();
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
    // All of it is gone after a Destroy; a failed Create has left it.
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
    m_DropFailedSetup();
    const FailedSetupMark mark(*this);
    if (here && !m_InitMainLoop()) {
        Destroy();
        return false;
    }
    GError* raw = nullptr;
    const bool started = m_StartThread(name, here, &raw);
    if (const ErrorPtr error(raw); error) {
        VELMORA_LOGE("Thread created fail,%s", error->message);
    }
    return started;
}

bool TCTask::m_StartThread(const char* name, bool isSetUp, GError** error)
{
    // A Destroy on another thread must not come between the start of the thread and its record.
    const std::lock_guard<std::mutex> lock(m_DestroyMutex);
    m_SetSettingUp(!isSetUp);
    GThread* const thread = g_thread_try_new(name, &TCTask::m_ThreadProcess, this, error);
    if (thread == nullptr) {
        m_SetSettingUp(false);
        return false;
    }
    m_Thread = thread;
    return true;
}

// Takes back what a failed Create has set up. The IOs that the client had added stay in the list,
// also those added since; those that the set-up added itself come back with the next one. A Final
// that throws leaves all as it was.
void TCTask::m_DropFailedSetup()
{
    if (m_StaleIOs == 0) {
        return;
    }
    ListPtr kept;
    bool addedBySetup = false;
    unsigned int index = 0;
    for (const GList* node = m_IOList; node != nullptr; node = node->next, ++index) {
        auto* const io = static_cast<TCIOBase*>(node->data);
        addedBySetup = (addedBySetup || io == this) && index < m_StaleIOs;
        if (!addedBySetup && g_list_find(kept.get(), io) == nullptr) {
            kept.reset(g_list_append(kept.release(), io));
        }
    }
    m_Destroy();
    m_IOList = kept.release();
    m_StaleIOs = 0;
}

void* TCTask::m_ThreadProcess(void* data)
{
    auto* const task = static_cast<TCTask*>(data);
    task->m_Thread = g_thread_self(); // Create may not have stored it yet
    const bool ready = task->m_InitMainLoop();
    task->m_SetSettingUp(false);
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

void TCTask::m_SetSettingUp(bool settingUp)
{
    const std::lock_guard<std::mutex> lock(m_StateMutex);
    m_SettingUp = settingUp;
    m_SetupOver.notify_all();
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
    m_Stop();
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
        // Whoever asks for the task's loop from now on gets none, and whoever asks under the lock
        // has taken a reference before it is freed.
        const MutexGuard guard(m_QueueMutex);
        m_MainLoop = nullptr;
    }
    LoopPtr loop;
    ContextPtr context; // released without the lock: the client's sources may go with it
    const std::lock_guard<std::mutex> lock(m_StateMutex);
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
    const std::lock_guard<std::mutex> lock(m_DestroyMutex);
    ContextPtr context(m_RefContextAfterSetup());
    SourcePtr insistence;
    if (context) {
        m_Report(m_PostExit());
        if (m_Thread != nullptr) {
            insistence.reset(g_idle_source_new());
            g_source_set_priority(insistence.get(), G_PRIORITY_DEFAULT);
            g_source_set_callback(insistence.get(), &TCTask::m_InsistOnExit, this, nullptr);
            g_source_attach(insistence.get(), context.get());
        }
        context.reset(); // the task's thread is to be the last to release it
    }
    if (m_Thread != nullptr) {
        g_thread_join(m_Thread);
    }
    m_Thread = nullptr;
    VELMORA_LOGD("task is destroyed!");
}

// One reference to the context of a task whose set-up is over, null if it has not started or has
// ended. An exit event that was sent earlier would be refused, and the loop would run for ever.
GMainContext* TCTask::m_RefContextAfterSetup()
{
    std::unique_lock<std::mutex> lock(m_StateMutex);
    m_SetupOver.wait(lock, [this] { return !m_SettingUp; });
    return m_TaskLoop != nullptr ? g_main_context_ref(m_Context) : nullptr;
}

// Runs once on the loop while Destroy waits, in case its exit event was refused, or came to a queue
// that dispatches nothing any more. What becomes of a queued one is seen where it happens.
gboolean TCTask::m_InsistOnExit(gpointer data)
{
    auto* const task = static_cast<TCTask*>(data);
    if (g_main_loop_is_running(task->m_TaskLoop)) { // else only a nested loop still runs
        task->m_PursueExit();
    }
    return G_SOURCE_REMOVE;
}

} // namespace Velmora
