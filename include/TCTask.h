// SPDX-License-Identifier: MIT
/// @file
/// A worker thread with its own main loop.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "TCEventIO.h"

namespace Velmora {

/// A thread with its own GLib main context, main loop and event queue; the task is the queue.
///
/// Order of use: construct; AddIO() for further objects that the task drives; Create(); send
/// events; Destroy(); destruct. Call Destroy() once for each Create(), even if the task has ended
/// by itself. Then the task may be created again, and its IOs must be added again. The destructor
/// does not stop anything: do not destruct a running task.
///
/// The task does not make its context thread-default. Attach your own sources to #m_Context.
///
/// To end a task from its own thread, send it EVENT_EXIT_TASK. What was queued before it is still
/// dispatched; what was queued after it is cleared. Another thread must still call Destroy().
class SENNET_API TCTask : public TCEventIO
{
public:
    /// @param name the name of the queue, for log lines
    explicit TCTask(const char* name);
    ~TCTask() override;

    /// Starts the thread. Call this on the thread that owns the task. A second call before
    /// Destroy() fails.
    ///
    /// After a failed call, the IOs that were added before it stay added. The next call first
    /// finalises what was initialised, then starts over. These IOs must live until then or, if
    /// there is no next call, until the task is destructed; the destructor does not touch them.
    /// Accepted events stay queued, and their receivers must live, until the next call or the
    /// destructor clears them. The destructor can no longer call the t_Clear() of a subclass: if
    /// that must see these events, call Final() in the destructor of the subclass.
    /// @param name the thread's name; may be null
    /// @param here true: the set-up (t_AddIO(), every Init(), t_Create()) runs on the calling
    ///             thread and is complete when the call returns. The call returns false if it
    ///             fails; after true, the queue accepts events.
    ///             False: the set-up runs on the new thread. A failure ends that thread and is not
    ///             reported. Events sent before the end of the set-up may be refused.
    /// @param unused has no effect
    /// @return true if the thread was started
    bool Create(const char* name, bool here = true, unsigned long unused = 0);

    /// Ends the task and waits for its thread. Sends EVENT_EXIT_TASK, so that what is queued is
    /// dispatched first, and sends it again if it is lost. A subclass that does not pass the event
    /// on to the base class must quit the loop itself.
    ///
    /// Any thread may call this except the task's own, where it writes an error line and does
    /// nothing. Of two calls at once, the second waits for the first. After Create() with `here`
    /// false, it waits for a set-up that is still running. With `here` true, it must not overlap
    /// with Create(): the thread that Create() starts would not be joined.
    void Destroy();

    /// Adds an object that gets Init() in the set-up of the task and Final() at its end, both in
    /// the order of adding. Call this before Create() or in t_AddIO().
    /// @param io not owned; must live until Destroy() has returned
    void AddIO(TCIOBase* io);

    /// @cond internal
    struct Private; // the library's own operations, in src/
    /// @endcond

protected:
    /// For subclasses: the place to call AddIO(). Runs in the set-up, after the task has added
    /// itself.
    virtual void t_AddIO();

    /// For subclasses: the last step of the set-up, after every Init().
    /// @return false makes the set-up fail
    virtual bool t_Create();

    /// Runs the loop on the task's thread. An override must run #m_TaskLoop; when it returns, the
    /// task ends. An EVENT_EXIT_TASK that is dispatched before the loop runs has no effect (see
    /// g_main_loop_quit), so an override must not iterate #m_Context before it runs the loop.
    virtual void t_Main();

    /// For subclasses: the last step on the task's thread, after every Final() and before the loop
    /// and the context are released.
    virtual void t_Destroy();

    /// @cond internal
    bool m_NewThread(const char* name, unsigned long unused, bool here);
    bool m_InitMainLoop();
    static void* m_ThreadProcess(void* data);
    void m_Destroy();
    /// @endcond

    std::atomic<GThread*> m_Thread{nullptr};     ///< null when there is no thread to join
    GList* m_IOList = nullptr;                   ///< used by the thread that sets up, then the task
    GMainContext* m_Context = nullptr;           ///< owned; released under the state lock
    std::atomic<GMainLoop*> m_TaskLoop{nullptr}; ///< owned; released under the state lock

private:
    std::mutex m_DestroyMutex; ///< one Destroy() at a time, and none while the thread is started
    std::mutex m_StateMutex;   ///< guards m_SettingUp, and the loop and context for Destroy()
    std::condition_variable m_SetupOver; ///< m_SettingUp has become false
    bool m_SettingUp = false;            ///< the set-up runs on the task's thread
    unsigned int m_StaleIOs = 0;         ///< entries of the list that a failed Create() has left
};

/// @cond internal
namespace Internal {
// The name of the task's queue, valid as long as the task.
SENNET_API const char* QueueName(const TCTask& task);
} // namespace Internal
/// @endcond

} // namespace Velmora
