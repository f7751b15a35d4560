/// @file
/// A worker thread with a main loop of its own.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "TCEventIO.h"

#pragma GCC visibility push(default)

namespace Velmora {

/// A thread with a GLib main context, a main loop and an event queue, which is the task itself.
///
/// Order of use: construct; AddIO() for further objects that the task is to drive; Create(); send
/// events; Destroy(); destruct. One Destroy() goes with one Create(), also when the task has ended
/// by itself, and the task may be created anew afterwards, its IOs added anew. The destructor stops
/// nothing: destroying a running task is an error of the caller.
///
/// The task does not make its context thread-default. Sources of the client's own are attached to
/// #m_Context.
///
/// To end a task from its own thread, send it EVENT_EXIT_TASK. What was queued before is still
/// dispatched; what comes behind is cleared. Another thread still calls Destroy().
class __attribute__((visibility("default"))) TCTask : public TCEventIO
{
public:
    /// @param name the name of the queue, for log lines
    explicit TCTask(const char* name);
    ~TCTask() override;

    /// Starts the thread, on the owner's thread. A second call before Destroy() is refused.
    ///
    /// After a call that failed, IOs that were added before it count as added for the next call,
    /// which finalises what the failed one had initialised and starts afresh. They live until then,
    /// or until the task's destructor, which does not touch them; receivers of events that the
    /// queue has accepted live until it has cleared them there. A subclass whose own t_Clear() is
    /// to see these calls Final() in its destructor.
    /// @param name the thread's name; may be null
    /// @param here true: the set-up (t_AddIO(), every Init(), t_Create()) runs on the calling
    ///             thread and is over when the call returns; its failure is the result, and after
    ///             true the queue accepts events. False: it runs on the new thread; its failure
    ///             ends the thread and is not reported, and events sent before its end may be
    ///             refused.
    /// @param unused has no effect
    /// @return true when the thread was started
    bool Create(const char* name, bool here = true, unsigned long unused = 0);

    /// Ends the task and waits for its thread: sends EVENT_EXIT_TASK, so that what is queued is
    /// dispatched first. The event is sent again if it is lost on its way; a subclass that keeps it
    /// from the base class has to quit the loop itself.
    ///
    /// May be called on any thread but the task's own, where it writes an error line and does
    /// nothing; calls from two threads wait for each other. After Create() with `here` false it
    /// waits for a set-up that is still running. With true it must not overlap with Create(): the
    /// thread that this starts would not be joined.
    void Destroy();

    /// Adds an object that gets Init() when the task is set up and Final() when it ends, both in
    /// the order of adding. To be called before Create(), or from t_AddIO().
    /// @param io not owned; lives until Destroy() has returned
    void AddIO(TCIOBase* io);

protected:
    /// For subclasses: the place to call AddIO(). Runs in the set-up, after the task has added
    /// itself.
    virtual void t_AddIO();

    /// For subclasses: the end of the set-up, after every Init().
    /// @return false fails the set-up
    virtual bool t_Create();

    /// Runs the loop on the task's thread. An override runs #m_TaskLoop itself; the tear-down
    /// follows when it returns. An EVENT_EXIT_TASK that is dispatched before the loop runs has no
    /// effect (g_main_loop_quit), so the override does not iterate #m_Context before.
    virtual void t_Main();

    /// For subclasses: the task's last word, on its thread, after every Final() and before the loop
    /// and the context are released.
    virtual void t_Destroy();

    /// @cond internal
    bool m_NewThread(const char* name, unsigned long unused, bool here);
    bool m_InitMainLoop();
    static void* m_ThreadProcess(void* task);
    void m_Destroy();
    /// @endcond

    std::atomic<GThread*> m_Thread{nullptr};     ///< null when there is no thread to join
    GList* m_IOList = nullptr;                   ///< of the thread that sets up, then of the task's
    GMainContext* m_Context = nullptr;           ///< owned; released under the state lock
    std::atomic<GMainLoop*> m_TaskLoop{nullptr}; ///< owned; released under the state lock

private:
    class [[gnu::visibility("hidden")]] FailedSetupMark;

    [[gnu::visibility("hidden")]] bool m_StartThread(const char* name, bool isSetUp,
                                                     GError** error);
    [[gnu::visibility("hidden")]] void m_DropFailedSetup();
    [[gnu::visibility("hidden")]] void m_SetSettingUp(bool settingUp);
    [[gnu::visibility("hidden")]] GMainContext* m_RefContextAfterSetup();
    [[gnu::visibility("hidden")]] static gboolean m_InsistOnExit(gpointer task);

    std::mutex m_DestroyMutex; ///< one Destroy() at a time, and none while the thread is started
    std::mutex m_StateMutex;   ///< guards m_SettingUp, and the loop and context for Destroy()
    std::condition_variable m_SetupOver; ///< signals the fall of m_SettingUp
    bool m_SettingUp = false;            ///< the set-up runs on the task's thread
    unsigned int m_StaleIOs = 0;         ///< entries of the list that a failed Create() has left
};

} // namespace Velmora

#pragma GCC visibility pop
