/// @file
/// Events, handlers and the event queue bound to a GLib main loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include <glib.h>

#include "TCLog.h"
#include "TCMessage.h"
#include "TCMutex.h"

#pragma GCC visibility push(default)

namespace Velmora {

class TCAlarm;
class TCEventIO;
class TCHandler;
class TCTask;

namespace Internal {
/// What RunAndWait() does with a queue whose loop runs on another thread: returns when the callable
/// has run or is certain not to.
void RunAndAwait(TCEventIO* receiver, std::function<void()> callable);
} // namespace Internal

/// @name Event ids
/// The ids that TCEventIO::t_OnEvent() and TCEventIO::t_Clear() give a meaning. Every other id, 0
/// and 2 among them, is free for subclasses. An override of those two operations passes these ids
/// on to the base class, or takes their handling away.
/// @{

/// Quits the loop that was given to TCEventIO::Init(); what is queued behind it is not dispatched.
/// `param.p` is not used.
inline constexpr unsigned long EVENT_EXIT_TASK = 1;
/// Delivers the heap TCMessage in `param.p`; used between servers of one process.
inline constexpr unsigned long EVENT_TRANSFER_MESSAGE = 3;
/// Used by TCEventIO::Ping().
inline constexpr unsigned long EVENT_PING = 4;
/// Clears every entry that is queued when it comes up; sent urgently, everything that is queued.
/// `param.p` is not used.
inline constexpr unsigned long EVENT_CLEAR_QUEUE = 5;
/// Calls the heap `std::function<void()>` in `param.p`, made with `new`.
inline constexpr unsigned long EVENT_EXECUTE_FUNCTION = 6;
/// @}

/// What an event carries besides its payloads. Holds eight bytes on every platform.
struct alignas(8) TCEventParam
{
    /// What it points to, and who owns that, depends on the id of the event. Copies of the event
    /// share it. A queue that accepted a by-value event releases it through TCHandler::OnClear().
    void* p = nullptr;
};

/// One event: a record posted to a handler's queue.
///
/// Copying copies both payloads; `param.p` is copied as a pointer. Destruction leaves `param.p`
/// alone.
class __attribute__((visibility("default"))) TCEvent
{
public:
    TCEvent() = default;
    /// Copies both payloads and the pointer.
    TCEvent(const TCEvent& other) = default;
    /// The same.
    TCEvent& operator=(const TCEvent& other) = default;
    /// Takes the payloads over; the source may only be assigned to or destroyed afterwards.
    TCEvent& operator=(TCEvent&& other) noexcept = default;
    virtual ~TCEvent() = default;

    TCHandler* receiver = nullptr; ///< who gets the event; its queue takes it
    unsigned long id = 0;          ///< one of the ids above, or the application's own
    bool deleted = false;          ///< set in the queue by TCEventIO::DeleteEvent()
    TCData data;                   ///< first payload
    TCData extra;                  ///< second payload
    bool sync = false;             ///< queued by pointer; set by TCEventIO::SendSyncEvent()
    TCEventParam param;            ///< what the id needs; see the ids
};

/// What can receive events. A subclass that is no queue itself points #m_EventIO at the queue that
/// is to take its events; events sent to it before are refused.
class __attribute__((visibility("default"))) TCHandler
{
public:
    TCHandler() = default;
    virtual ~TCHandler() = default;
    TCHandler(const TCHandler&) = delete;
    TCHandler& operator=(const TCHandler&) = delete;

    /// Calls t_OnEvent(). Runs on the thread of the queue's loop, with no lock of the queue held.
    /// @return whether the id was handled; the queue does not look at it
    bool OnEvent(const TCEvent* event) { return t_OnEvent(event); }

    /// Calls t_Clear(), once for each by-value event that a queue accepted: after OnEvent(), or
    /// alone where the event was deleted, swept or cleared by TCEventIO::Final().
    void OnClear(TCEvent* event) { t_Clear(event); }

protected:
    friend class TCEventIO;

    /// Handles one event. An exception that leaves it passes through the loop and so, on a task's
    /// thread, ends the process; Json::Value's asInt() and its like throw on a value of another
    /// type, so look with isInt() first at what others have sent.
    /// @return whether the id was handled; the base class handles none
    virtual bool t_OnEvent(const TCEvent* event);

    /// Releases what `param.p` of one event points to. Runs on the loop's thread after a dispatch,
    /// and under the queue's lock while a queue is swept or finalised: it must not wait for another
    /// thread that sends to this queue.
    /// The base class releases nothing.
    virtual void t_Clear(TCEvent* event);

    /// The queue that takes events addressed to this handler. Set it before the first send to the
    /// handler; senders read it without a lock.
    TCEventIO* m_EventIO = nullptr;
};

/// What a task can drive: something that is initialised with the task's loop when the task starts
/// and finalised when it ends.
class __attribute__((visibility("default"))) TCIOBase
{
public:
    TCIOBase() = default;
    virtual ~TCIOBase() = default;
    TCIOBase(const TCIOBase&) = delete;
    TCIOBase& operator=(const TCIOBase&) = delete;

    /// @param loop the loop on which the object is to work; null means the global default context
    /// @return false ends the set-up of the task
    virtual bool Init(GMainLoop* loop) = 0;

    /// Ends the work of Init(); on the loop's thread, or after the loop has stopped.
    virtual void Final() = 0;

protected:
    int m_IOValue = 0; ///< not used by the library
};

/// An event queue bound to a GLib main loop.
///
/// Any thread sends a TCEvent; the thread that runs the loop takes the entries off one at a time,
/// one in each callback of the loop, and gives each to its receiver. Between events the loop sleeps
/// in its ordinary poll.
///
/// Order of use: construct; Init(), directly or through a TCTask; send from any thread; Final();
/// destruct. After Final() a new Init() starts the queue again. Sends, CountEvent(), DeleteEvent()
/// and Ping() may overlap with each other and with Init() and Final(), but not with the destructor.
/// Final() runs on the loop's thread, or after the loop has stopped.
///
/// Order of delivery: events sent with SendEvent() arrive in the order in which their senders got
/// the queue's lock; an urgent event overtakes everything queued at that moment.
///
/// Capacity: each entry holds one byte of a pipe until it is dispatched. A pipe of the kernel's
/// default size takes 61,440 to 65,536 entries; a send that finds no room is refused at once.
///
/// A main loop that a handler runs on the same context dispatches the context's other sources,
/// other queues among them, but no event of this queue: the next one follows when the handler has
/// returned. Do not wait for an event of the queue in such a loop.
///
/// Once EVENT_EXIT_TASK has quit the loop, nothing else is dispatched until Final() and a new
/// Init(); Final() clears what is queued.
///
/// A child made with fork() may do nothing with the library but exec: it shares the pipes of the
/// queues that it has inherited. Sends to them are refused there, and leave the parent's alone.
class __attribute__((visibility("default"))) TCEventIO : public TCIOBase, public TCHandler
{
public:
    /// @param name shown in log lines only
    explicit TCEventIO(std::string name);

    /// Closes the pipe and the watch if they are still there. It does not clear the queue: entries
    /// left in it are lost, so that Final() comes first.
    ~TCEventIO() override;

    /// Makes the queue ready: a pipe, a watch on the loop's context, then t_Init(). On a queue that
    /// is ready it changes nothing and answers true. What a failed call leaves is released by the
    /// next call or by the destructor.
    /// @param loop not owned, and used until Final(); null means the global default main context,
    ///             and EVENT_EXIT_TASK then has no effect
    /// @return whether the queue accepts events
    bool Init(GMainLoop* loop) override;

    /// Clears every entry, ends the watch and closes the pipe. Every by-value entry gets its
    /// OnClear() on the calling thread, under the queue's lock; a sender that waits in
    /// SendSyncEvent() returns at once, its handler not having run; a queued ping is waited for
    /// until its timeout. Afterwards sends are refused.
    void Final() override;

    /// Queues a copy of the event. May be called on any thread, handlers of the queue included, and
    /// waits only for the queue's lock.
    /// @param event stays the caller's. On true `param.p` belongs to the queue, on false it stays
    ///              with the caller.
    /// @return false, with an error line, if the receiver is null or has no queue, the queue is not
    ///         ready, or its pipe is full or cannot be written
    static bool SendEvent(TCEvent* event);

    /// Like SendEvent(), ahead of all entries: of two urgent events the later one goes first.
    static bool SendUrgentEvent(TCEvent* event);

    /// Queues the caller's own event by pointer and returns when its handler has finished. Sets
    /// `sync`, and overwrites `param.p`: an id that uses `param.p` cannot be sent so. The payloads
    /// arrive as they are, not normalised as in a copy: after writing into `m_Json`, call
    /// Generate() where the handler reads the text.
    ///
    /// If the loop has not reached the event after 20 seconds, the event is taken back and its
    /// handler does not run; a handler that is running then is waited for. Once the call has
    /// returned, nothing touches the event again. No OnClear() follows. Before the object goes
    /// through SendEvent(), clear `sync`, or it would be queued by pointer again, and `deleted`,
    /// which a DeleteEvent() may have set meanwhile.
    ///
    /// Not to be called on the thread of the receiver's loop, where it uses up the 20 seconds.
    /// @return true if the queue has accepted the event, also when it was taken back or cleared;
    ///         false, with an error line, as in SendEvent()
    static bool SendSyncEvent(TCEvent* event);

    /// Asks whether the loop of a queue is alive.
    ///
    /// Not to be called on the thread of that loop. A ping with VELMORA_INFINITY whose entry is
    /// deleted, swept or finalised is never answered, and blocks the clearing thread: such a caller
    /// keeps the queue from being cleared.
    /// @param target may be null, which answers false
    /// @param timeout microseconds, at least 2,100 (less counts as 2,100), or VELMORA_INFINITY
    /// @return true if the loop reached the ping within the timeout
    static bool Ping(TCEventIO* target, unsigned long timeout);

    /// @return the number of entries, deleted ones included; a snapshot taken without the lock
    unsigned int CountEvent() const;

    /// Marks every queued event of one receiver as deleted. A marked entry stays in its place; when
    /// it comes up it gets OnClear() and no OnEvent(), so that its receiver has to live until then.
    /// An event sent with SendSyncEvent() is counted and delivered all the same.
    /// @param handler the receiver; null means this queue itself as receiver, not all receivers
    /// @return the number of entries that are marked now, earlier marks included; -1 if the queue
    ///         is not ready
    int DeleteEvent(const TCHandler* handler);

    /// The same for the events that also have this id.
    int DeleteEvent(unsigned long id, const TCHandler* handler);

protected:
    friend class TCAlarm;
    friend class TCTask;

    /// Handles the ids of the library; see there.
    /// @return true for those ids but EVENT_CLEAR_QUEUE, false for all others and a null event
    bool t_OnEvent(const TCEvent* event) override;

    /// For subclasses: the last step of Init(), under the queue's lock.
    /// @return false leaves the queue not ready
    virtual bool t_Init();

    /// Called by nobody; kept for the order of virtual operations.
    virtual void t_Final();

    /// Releases `param.p` of the library's ids; EVENT_CLEAR_QUEUE sweeps the queue.
    void t_Clear(TCEvent* event) override;

    /// @cond internal
    enum class PostResult { Queued, NotCreated, PipeFull, WriteFailed };

    /// Links the node's entry at one end of the list, with its byte, or does nothing.
    PostResult m_Post(std::list<TCEvent*>& node, bool urgent);
    bool m_Put(TCEvent* event);
    bool m_Insert(TCEvent* event);
    bool m_Get(TCEvent* event, TCEvent** byPointer, unsigned long timeout);
    int m_DeleteEvent(const TCHandler* handler, bool compareIds, unsigned long id);
    static gboolean m_InterIOWatch(GIOChannel* channel, GIOCondition condition, gpointer data);
    /// @endcond

    TCMutex m_QueueMutex; ///< guards the list, the created flag and the write end of the pipe
    std::string m_Name;   ///< constant
    /// By-value entries are owned, by-pointer ones the senders'.
    std::list<TCEvent*> m_EventList SENNET_THREAD_SAFETY(guarded_by(m_QueueMutex));
    std::atomic<bool> m_FlagCreate{false};       ///< written under the lock, looked at also without
    std::atomic<GMainLoop*> m_MainLoop{nullptr}; ///< not owned
    GSource* m_Source = nullptr;     ///< one reference; of Init(), then of the loop's thread
    GIOChannel* m_Channel = nullptr; ///< during Init() only
    /// Read end, write end; the numbers outlive the descriptors.
    int m_PipeFileDes[2] = {-1, -1};

private:
    friend void Internal::RunAndAwait(TCEventIO* receiver, std::function<void()> callable);

    class [[gnu::visibility("hidden")]] Dispatch;

    static constexpr unsigned long kLockWait = 1000; ///< microseconds

    /// What has become of the exit event of a TCTask::Destroy() that waits.
    enum class ExitRequest : std::uint8_t {
        None,
        Queued,
        Taken,      ///< off the list, its byte not read: for good if that fails
        Dispatched, ///< its receiver has it, and decides
        Lost,       ///< refused, deleted or cleared
    };

    [[gnu::visibility("hidden")]] static TCEventIO* m_FindQueue(const TCEvent* event);
    [[gnu::visibility("hidden")]] bool m_Report(PostResult result) const;
    [[gnu::visibility("hidden")]] PostResult m_PostOwned(std::unique_ptr<TCEvent> entry,
                                                         bool urgent);
    [[gnu::visibility("hidden")]] PostResult m_PostExit();
    [[gnu::visibility("hidden")]] void m_PursueExit();
    [[gnu::visibility("hidden")]] void m_Stop();
    [[gnu::visibility("hidden")]] bool m_OpenPipe();
    [[gnu::visibility("hidden")]] bool m_OwnsPipe() const;
    [[gnu::visibility("hidden")]] void m_CountReadByte();
    [[gnu::visibility("hidden")]] GSource* m_MakeWatch(GIOChannel* channel);
    [[gnu::visibility("hidden")]] bool m_AttachWatch();
    [[gnu::visibility("hidden")]] void m_ReleaseWatch();
    [[gnu::visibility("hidden")]] void m_LeaveDispatch();
    [[gnu::visibility("hidden")]] bool m_HasRoomForSure()
        SENNET_THREAD_SAFETY(requires_capability(m_QueueMutex));
    [[gnu::visibility("hidden")]] int m_WriteByte()
        SENNET_THREAD_SAFETY(requires_capability(m_QueueMutex));
    [[gnu::visibility("hidden")]] void m_PutBack(TCEvent* byPointer);
    [[gnu::visibility("hidden")]] bool m_AwaitHandler(const TCEvent* event, TCSemaphore& handled);
    [[gnu::visibility("hidden")]] void m_ClearEntries()
        SENNET_THREAD_SAFETY(requires_capability(m_QueueMutex));

    bool m_PipeOpen = false; ///< of Init(), Final() and the destructor
    /// Of Destroy() until its event is queued or refused, then of the loop's thread.
    std::atomic<ExitRequest> m_Exit{ExitRequest::None};
    std::atomic<bool> m_Stopped{false};        ///< nothing is dispatched any more; any thread
    std::uint8_t m_PipeForks = 0;              ///< the forks before Init(); constant after it
    std::atomic<unsigned int> m_EntryCount{0}; ///< size of the list, for readers without the lock
    /// Bytes written and not yet read out of the channel, so at least as many as the pipe holds of
    /// them.
    /// Raised under the lock, lowered on the loop's thread.
    std::atomic<std::uint64_t> m_UnreadBytes{0};
    /// Written since the pipe was last known empty.
    std::uint64_t m_RunBytes SENNET_THREAD_SAFETY(guarded_by(m_QueueMutex)) = 0;
    /// The kernel's answer, asked for by long runs.
    std::uint64_t m_PipeSize SENNET_THREAD_SAFETY(guarded_by(m_QueueMutex)) = 0;
};

/// @copydoc Velmora::TCEventIO::SendEvent
bool SendEvent(TCEvent* event);
/// @copydoc Velmora::TCEventIO::SendUrgentEvent
bool SendUrgentEvent(TCEvent* event);
/// @copydoc Velmora::TCEventIO::SendSyncEvent
bool SendSyncEvent(TCEvent* event);

} // namespace Velmora

#pragma GCC visibility pop
