// SPDX-License-Identifier: MIT
/// @file
/// Events, handlers, and the event queue bound to a GLib main loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <string>

#include <glib.h>

#include "SennetApi.h"
#include "TCLog.h"
#include "TCMessage.h"
#include "TCMutex.h"

namespace Velmora {

class TCEventIO;
class TCHandler;

/// @name Event ids
/// The ids that TCEventIO handles. All other ids, 0 and 2 included, are free for the application.
/// An override of TCEventIO::t_OnEvent() or TCEventIO::t_Clear() must pass these ids on to the base
/// class; otherwise nothing handles them.
/// @{

/// Quits the loop that was given to TCEventIO::Init(). Events queued after it are not dispatched.
/// `param.p` is not used.
inline constexpr unsigned long EVENT_EXIT_TASK = 1;
/// Delivers the TCMessage in `param.p`, made with `new`. Used between servers of one process.
inline constexpr unsigned long EVENT_TRANSFER_MESSAGE = 3;
/// Used by TCEventIO::Ping().
inline constexpr unsigned long EVENT_PING = 4;
/// Clears the whole queue when it is dispatched. Send it urgently to clear what is queued now.
/// `param.p` is not used.
inline constexpr unsigned long EVENT_CLEAR_QUEUE = 5;
/// Calls the `std::function<void()>` in `param.p`, made with `new`.
inline constexpr unsigned long EVENT_EXECUTE_FUNCTION = 6;
/// @}

/// What an event carries besides its payloads. Takes eight bytes on every platform.
struct SENNET_API TCEventParam
{
    /// The id of the event decides what this points to and who owns it. Copies of the event share
    /// it. A queue that has accepted a copy of the event releases it through TCHandler::OnClear().
    alignas(8) void* p = nullptr;
};

/// One event: a record that is sent to a handler. The destructor does not release `param.p`.
class SENNET_API TCEvent
{
public:
    TCEvent() = default;
    /// Copies both payloads and the pointer `param.p`.
    TCEvent(const TCEvent& other) = default;
    /// Copies both payloads and the pointer `param.p`.
    TCEvent& operator=(const TCEvent& other) = default;
    /// Moves the payloads. The source may then only be assigned to or destroyed.
    TCEvent& operator=(TCEvent&& other) noexcept = default;
    virtual ~TCEvent() = default;

    TCHandler* receiver = nullptr; ///< the handler that gets the event through its queue
    unsigned long id = 0;          ///< one of the ids above, or one of the application
    bool deleted = false;          ///< set in the queue by TCEventIO::DeleteEvent()
    TCData data;                   ///< first payload
    TCData extra;                  ///< second payload
    bool sync = false;             ///< queued without a copy; set by TCEventIO::SendSyncEvent()
    TCEventParam param;            ///< its use depends on the id
};

/// Receives events from a queue. A TCEventIO is a handler with a queue of its own; any other
/// subclass sets #m_EventIO to the queue that is to take its events. Until then, sends to it fail.
class SENNET_API TCHandler
{
public:
    TCHandler() = default;
    virtual ~TCHandler() = default;
    TCHandler(const TCHandler&) = delete;
    TCHandler& operator=(const TCHandler&) = delete;

    /// Calls t_OnEvent(). The queue calls this on the thread of its loop, and holds no lock.
    /// @return true if the id was handled; the queue ignores it
    bool OnEvent(const TCEvent* event) { return t_OnEvent(event); }

    /// Calls t_Clear(). The queue calls this once for each event of which it accepted a copy: after
    /// OnEvent(), or without it if the event was deleted or cleared.
    void OnClear(TCEvent* event) { t_Clear(event); }

    /// @cond internal
    struct Private; // the library's own operations, in src/
    /// @endcond

protected:
    /// Handles one event. Do not let an exception out: it passes through the loop and, on a task's
    /// thread, ends the process. Functions like Json::Value::asInt() throw if the value has another
    /// type, so check received values first, for example with isInt().
    /// @return true if the id was handled; the base class returns false
    virtual bool t_OnEvent(const TCEvent* event);

    /// Releases what `param.p` of one event points to; the base class releases nothing. Runs on the
    /// loop's thread after the dispatch of the event, or under the queue's lock while the queue is
    /// cleared: do not wait here for another thread that sends to this queue.
    virtual void t_Clear(TCEvent* event);

    /// The queue that takes the events sent to this handler. Set it before the first send, because
    /// senders read it without a lock.
    TCEventIO* m_EventIO = nullptr;
};

/// An object that a task drives. The task calls Init() with its loop when it starts, and Final()
/// when it ends.
class SENNET_API TCIOBase
{
public:
    TCIOBase() = default;
    virtual ~TCIOBase() = default;
    TCIOBase(const TCIOBase&) = delete;
    TCIOBase& operator=(const TCIOBase&) = delete;

    /// Starts to work on a loop.
    /// @param loop null means the global default main context
    /// @return false makes the set-up of the task fail
    virtual bool Init(GMainLoop* loop) = 0;

    /// Ends the work of Init(). Called on the loop's thread, or after the loop has stopped.
    virtual void Final() = 0;

protected:
    int m_IOValue = 0; ///< not used by the library
};

/// An event queue bound to a GLib main loop.
///
/// Any thread sends events. The thread that runs the loop takes them off the queue, one in each
/// callback of the loop, and gives each one to its receiver. Between events the loop sleeps in its
/// ordinary poll.
///
/// Order of use: construct; Init(), directly or through a TCTask; send events; Final(); destruct.
/// After Final(), Init() starts the queue again. Sends, CountEvent(), DeleteEvent() and Ping() may
/// overlap with each other and with Init() and Final(), but not with the destructor. Call Final()
/// on the loop's thread or after the loop has stopped.
///
/// Order of delivery: events arrive in the order in which SendEvent() got the queue's lock. An
/// urgent event overtakes everything that is queued at that moment.
///
/// Capacity: each entry holds one byte of a pipe until it is dispatched. A pipe of the kernel's
/// default size has room for 61,440 to 65,536 entries. Without room, a send fails at once.
///
/// Nested loops: a main loop that a handler runs on the same context dispatches the other sources
/// of that context, including other queues, but no event of this queue. The next one follows when
/// the handler has returned. Do not wait for an event of this queue in such a loop.
///
/// After EVENT_EXIT_TASK has quit the loop, nothing more is dispatched until Final(), which clears
/// the queue, and a new Init().
///
/// A child made with fork() must not use the library and may only call exec: it shares the pipes of
/// the queues that it has inherited. Sends to these queues fail in the child, and do not affect the
/// parent.
class SENNET_API TCEventIO : public TCIOBase, public TCHandler
{
public:
    /// @param name shown in log lines only
    explicit TCEventIO(std::string name);

    /// Removes the watch and closes the pipe if they still exist. It does not clear the queue:
    /// entries that are left are lost, so call Final() first.
    ~TCEventIO() override;

    /// Makes the queue ready: creates a pipe and a watch on the loop's context, then calls
    /// t_Init(). If the queue is ready already, nothing changes. What a failed call leaves is
    /// released by the next call or by the destructor.
    /// @param loop not owned; must live until Final(). Null means the global default main context;
    ///             then EVENT_EXIT_TASK has no effect.
    /// @return true if the queue accepts events
    bool Init(GMainLoop* loop) override;

    /// Clears every entry, removes the watch and closes the pipe. Later sends fail.
    ///
    /// OnClear() runs on the calling thread, under the queue's lock. A sender that waits in
    /// SendSyncEvent() returns at once, without its handler having run. If a ping is queued,
    /// Final() blocks until that ping times out.
    void Final() override;

    /// Queues a copy of the event. Any thread may call it, also inside a handler of the queue; it
    /// waits only for the queue's lock.
    /// @param event stays the caller's. After true, the queue owns what `param.p` points to; after
    ///              false, the caller still does.
    /// @return false, with an error line, if the receiver is null or has no queue, if the queue is
    ///         not ready, or if its pipe is full or cannot be written
    static bool SendEvent(TCEvent* event);

    /// Same as SendEvent(), but puts the event before all entries. Of two urgent events, the later
    /// one is dispatched first.
    static bool SendUrgentEvent(TCEvent* event);

    /// Queues the caller's event itself, not a copy, and returns when its handler has finished. Do
    /// not call this on the thread of the receiver's loop: it would block for the full 20 seconds.
    ///
    /// The call sets `sync` and overwrites `param.p`, so do not use it with an id that needs
    /// `param.p`. There is no copy, whose constructor would generate the text: after writing to
    /// `m_Json`, call Generate() if the handler reads the text. No OnClear() follows.
    ///
    /// If the loop has not reached the event after 20 seconds, the call takes it back, and its
    /// handler does not run. If the handler is running by then, the call waits until it has
    /// finished. Once the call has returned, nothing touches the event again. Before you pass the
    /// same object to SendEvent(), clear `sync` (otherwise it is queued without a copy again) and
    /// `deleted` (DeleteEvent() may have set it).
    /// @return true if the queue has accepted the event, even if it was then taken back or cleared;
    ///         false, with an error line, as in SendEvent()
    static bool SendSyncEvent(TCEvent* event);

    /// Checks whether the loop of a queue is alive. Do not call this on the thread of that loop.
    ///
    /// If the entry of a ping with VELMORA_INFINITY is deleted or cleared, the ping never returns,
    /// and the thread that releases the entry blocks for ever. Make sure that nothing deletes or
    /// clears it.
    /// @param target if null, the call returns false
    /// @param timeout microseconds, or VELMORA_INFINITY; less than 2,100 counts as 2,100
    /// @return true if the loop has reached the ping within the timeout
    static bool Ping(TCEventIO* target, unsigned long timeout);

    /// @return the number of entries, deleted ones included; a snapshot taken without the lock
    unsigned int CountEvent() const;

    /// Marks every queued event of one receiver as deleted. A marked entry keeps its place. When
    /// its turn comes, its receiver gets OnClear() but no OnEvent(), so it must live until then. An
    /// event sent with SendSyncEvent() is counted, but is still delivered.
    /// @param handler the receiver; null means this queue as the receiver, not all receivers
    /// @return the number of entries that are now marked, earlier marks included; -1 if the queue
    ///         is not ready
    int DeleteEvent(const TCHandler* handler);

    /// Same as the other DeleteEvent(), but only for events with this id.
    int DeleteEvent(unsigned long id, const TCHandler* handler);

    /// @cond internal
    struct Private; // the library's own operations, in src/
    /// @endcond

protected:
    /// Handles the event ids of the library.
    /// @return true for these ids except EVENT_CLEAR_QUEUE; false for all others and a null event
    bool t_OnEvent(const TCEvent* event) override;

    /// For subclasses: the last step of Init(), under the queue's lock.
    /// @return false makes Init() fail
    virtual bool t_Init();

    /// Unused. Kept so that the vtable layout does not change.
    virtual void t_Final();

    /// Releases `param.p` of the event ids of the library. For EVENT_CLEAR_QUEUE it clears the
    /// queue.
    void t_Clear(TCEvent* event) override;

    /// @cond internal
    enum class PostResult;

    PostResult m_Post(std::list<TCEvent*>& node, bool urgent);
    bool m_Put(TCEvent* event);
    bool m_Insert(TCEvent* event);
    bool m_Get(TCEvent* event, TCEvent** byPointer, unsigned long timeout);
    int m_DeleteEvent(const TCHandler* handler, bool compareIds, unsigned long id);
    static gboolean m_InterIOWatch(GIOChannel* channel, GIOCondition condition, gpointer data);
    /// @endcond

    TCMutex m_QueueMutex; ///< guards the list, the created flag and the write end of the pipe
    std::string m_Name;   ///< constant
    /// The copies are owned; the events of SendSyncEvent() are their senders'.
    std::list<TCEvent*> m_EventList SENNET_THREAD_SAFETY(guarded_by(m_QueueMutex));
    std::atomic<bool> m_FlagCreate{false};       ///< written under the lock, also read without it
    std::atomic<GMainLoop*> m_MainLoop{nullptr}; ///< not owned
    GSource* m_Source = nullptr;     ///< one reference; used by Init(), then by the loop's thread
    GIOChannel* m_Channel = nullptr; ///< only set during Init()
    /// Read end and write end; the numbers are kept after the descriptors are closed.
    int m_PipeFileDes[2] = {-1, -1};

private:
    enum class ExitRequest : std::uint8_t;

    bool m_PipeOpen = false; ///< used by Init(), Final() and the destructor
    /// Used by TCTask::Destroy() until its event is queued or refused, then by the loop's thread.
    std::atomic<ExitRequest> m_Exit;
    std::atomic<bool> m_Stopped{false};        ///< nothing is dispatched any more; any thread
    std::uint8_t m_PipeForks = 0;              ///< forks before Init(); constant after it
    std::atomic<unsigned int> m_EntryCount{0}; ///< size of the list, for readers without the lock
    /// Bytes that were written and not yet read out of the channel: never fewer than the pipe
    /// holds. Raised under the lock, lowered on the loop's thread.
    std::atomic<std::uint64_t> m_UnreadBytes{0};
    /// Bytes written since the pipe was last known to be empty.
    std::uint64_t m_RunBytes SENNET_THREAD_SAFETY(guarded_by(m_QueueMutex)) = 0;
    /// The size that the kernel has reported; requested when many bytes are unread.
    std::uint64_t m_PipeSize SENNET_THREAD_SAFETY(guarded_by(m_QueueMutex)) = 0;
};

/// @copydoc Velmora::TCEventIO::SendEvent
SENNET_API bool SendEvent(TCEvent* event);
/// @copydoc Velmora::TCEventIO::SendUrgentEvent
SENNET_API bool SendUrgentEvent(TCEvent* event);
/// @copydoc Velmora::TCEventIO::SendSyncEvent
SENNET_API bool SendSyncEvent(TCEvent* event);

} // namespace Velmora
