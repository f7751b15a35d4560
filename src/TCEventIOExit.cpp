// SPDX-License-Identifier: MIT
// The end of a queue's loop: the exit event of a TCTask::Destroy is pursued until the loop has been
// told to quit, and calls that wait for a loop that has quit are given up.
#include <memory>
#include <new>

#include "Locks.h"
#include "QueueEntries.h"
#include "TCEventIOPrivate.h"

namespace Velmora {

using namespace Internal;

void TCEventIO::Private::Stop(TCEventIO& queue)
{
    queue.m_Stopped = true;
    const Lock lock(queue.m_QueueMutex);
    for (const TCEvent* entry : queue.m_EventList) {
        if (const auto* const awaited = dynamic_cast<const AwaitedEvent*>(entry)) {
            awaited->GiveUp();
        }
    }
}

TCEventIO::PostResult TCEventIO::Private::PostExit(TCEventIO& queue)
{
    auto event = std::make_unique<ExitEvent>();
    event->receiver = &queue;
    event->id = EVENT_EXIT_TASK;
    queue.m_Exit = ExitRequest::Queued; // before the loop can take it
    const PostResult result = PostOwned(queue, std::move(event), false);
    if (result != PostResult::Queued) {
        queue.m_Exit = ExitRequest::Lost;
    }
    return result;
}

void TCEventIO::Private::PursueExit(TCEventIO& queue)
{
    const ExitRequest request = queue.m_Exit;
    if (request == ExitRequest::None || request == ExitRequest::Dispatched) {
        return;
    }
    // If the queue has stopped and the loop runs, the loop was told to quit before it ran.
    const bool watched =
        !queue.m_Stopped && queue.m_Source != nullptr && !g_source_is_destroyed(queue.m_Source);
    if (watched && request == ExitRequest::Queued) {
        return;
    }
    if (watched && request == ExitRequest::Lost) {
        try {
            const PostResult result = PostExit(queue);
            if (result == PostResult::Queued || result == PostResult::PipeFull) {
                return; // each byte of a full pipe causes a callback, which tries again
            }
        } catch (const std::bad_alloc&) { // must not pass through GLib
        }
    }
    if (GMainLoop* const loop = queue.m_MainLoop; loop != nullptr) {
        g_main_loop_quit(loop);
    }
}

} // namespace Velmora
