// SPDX-License-Identifier: MIT
// What the library does with a queue besides its public operations. The headings name the files.
#pragma once

#include <list>
#include <memory>
#include <optional>

#include "TCEventIO.h"

namespace Velmora {

struct __attribute__((visibility("hidden"))) TCHandler::Private
{
    static TCEventIO* QueueOf(const TCHandler& handler) { return handler.m_EventIO; }
};

enum class TCEventIO::PostResult { Queued, NotCreated, PipeFull, WriteFailed };

// What has become of the exit event of a TCTask::Destroy that waits.
enum class TCEventIO::ExitRequest : std::uint8_t {
    None,
    Queued,
    Taken,      // off the list, its byte not read yet; if reading fails, it is lost
    Dispatched, // its receiver has it, and decides
    Lost,       // refused, deleted or cleared
};

struct __attribute__((visibility("hidden"))) TCEventIO::Private
{
    using Entries = std::list<TCEvent*>;

    // How long the loop, EVENT_CLEAR_QUEUE and a sender that takes its event back wait for the
    // queue's lock.
    static constexpr unsigned long kLockWait = 1000; // microseconds

    static bool IsReady(const TCEventIO& queue) { return queue.m_FlagCreate; }
    static const char* Name(const TCEventIO& queue) { return queue.m_Name.c_str(); }

    // TCEventIO.cpp: the list of entries
    // ----------------------------------------------------------------------------------------

    // The queue that takes the event; null, with a log line, if there is none.
    static TCEventIO* FindQueue(const TCEvent* event);

    // Posts an entry, which the queue owns once it is queued.
    static PostResult PostOwned(TCEventIO& queue, std::unique_ptr<TCEvent> entry, bool urgent);

    // The same without a log line if the queue does not take the entry; returns whether it did.
    static bool PostQuietly(TCEventIO& queue, std::unique_ptr<TCEvent> entry, bool urgent);
    // The same, but waits for nothing; empty if another thread holds the queue's lock.
    static std::optional<bool> TryPostQuietly(TCEventIO& queue, std::unique_ptr<TCEvent> entry,
                                              bool urgent);

    // Returns whether an entry was queued; writes the error line if not.
    static bool Report(const TCEventIO& queue, PostResult result);

    // Moves the entry of the node to one end of the list.
    static void Link(TCEventIO& queue, Entries& node, bool urgent)
        SENNET_THREAD_SAFETY(requires_capability(queue.m_QueueMutex));

    // Moves one entry of the list to `node`.
    static void Unlink(TCEventIO& queue, Entries::iterator entry, Entries& node)
        SENNET_THREAD_SAFETY(requires_capability(queue.m_QueueMutex));

    // For readers without the lock. Not counted: a subclass may have changed the list itself.
    static void NoteSize(TCEventIO& queue)
        SENNET_THREAD_SAFETY(requires_capability(queue.m_QueueMutex));

    // Clears the list from its head until it is empty, including entries that are added meanwhile.
    static void ClearEntries(TCEventIO& queue)
        SENNET_THREAD_SAFETY(requires_capability(queue.m_QueueMutex));

    // One reference to the queue's loop, or null.
    static GMainLoop* RefLoop(TCEventIO& queue);

    static bool IsOnLoopThread(TCEventIO& queue);

    // TCEventIOPipe.cpp: the wake-up pipe and the watch on it
    // ----------------------------------------------------------------------------------------

    static bool OpenPipe(TCEventIO& queue);

    // False in a forked child, which shares the pipe with its parent.
    static bool OwnsPipe(const TCEventIO& queue);

    // Writes the byte of one entry, or finds no room, but never waits: the loop needs the same lock
    // before it reads. Returns 0 or the error, which the caller reports after the lock.
    static int WriteByte(TCEventIO& queue)
        SENNET_THREAD_SAFETY(requires_capability(queue.m_QueueMutex));
    static bool HasRoomForSure(TCEventIO& queue)
        SENNET_THREAD_SAFETY(requires_capability(queue.m_QueueMutex));

    // Reads the byte of one entry; writes a log line if that fails.
    static GIOStatus ReadByte(TCEventIO& queue, GIOChannel* channel);

    static GSource* MakeWatch(TCEventIO& queue, GIOChannel* channel);
    static bool AttachWatch(TCEventIO& queue);

    // Ends the watch and closes the pipe, if they exist.
    static void ReleaseWatch(TCEventIO& queue);

    // TCEventIODispatch.cpp: one entry, one byte and one handler in each callback of the loop
    // ----------------------------------------------------------------------------------------

    class Dispatch;

    // If the calling thread is inside a dispatch of the queue: its end does not attach the watch.
    static void KeepWatchOff(TCEventIO& queue);

    // If the calling thread is inside a dispatch of the queue: its end does not touch the queue.
    static void LeaveDispatch(TCEventIO& queue);

    // Puts an event that the queue does not own back after a failed read, so that it is not lost:
    // its sender finds it in the list after its timeout, or Final does before.
    static void PutBack(TCEventIO& queue, TCEvent* byPointer);

    // TCEventIOSync.cpp: senders that wait
    // ----------------------------------------------------------------------------------------

    // False if the sender has taken the event back; then no receiving side has seen the pair.
    static bool AwaitHandler(TCEventIO& queue, const TCEvent* event, TCSemaphore& handled);

    // TCEventIOExit.cpp: the end of the loop
    // ----------------------------------------------------------------------------------------

    // From now on nothing is dispatched: the loop has been told to quit, or will never run.
    static void Stop(TCEventIO& queue);
    static bool IsStopped(const TCEventIO& queue) { return queue.m_Stopped; }

    // Posts the exit event of a TCTask::Destroy.
    static PostResult PostExit(TCEventIO& queue);

    // Makes sure that the loop ends for a Destroy that waits, even if its exit event was refused,
    // deleted or cleared, or cannot be dispatched any more. If a handler has the event, only the
    // handler decides.
    static void PursueExit(TCEventIO& queue);
};

} // namespace Velmora
