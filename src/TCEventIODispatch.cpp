// SPDX-License-Identifier: MIT
// The loop's side of a queue: one entry, one byte and one handler in each callback of the watch.
#include <memory>
#include <utility>

#include "Check.h"
#include "Locks.h"
#include "QueueEntries.h"
#include "SyncPair.h"
#include "TCEventIOPrivate.h"
#include "Trace.h"

namespace Velmora {

using namespace Internal;

namespace {

// Follows OnEvent for an event queued by pointer, even if the handler has thrown. Once the sender
// has its answer, the event is not touched any more. The pair is noted before, so that a handler
// that writes to `param.p` or sends the event on does not make its sender wait for ever.
class Answer
{
public:
    explicit Answer(const TCEvent* event) : m_Event(event), m_Pair(event->param.p) {}
    ~Answer()
    {
        if (m_Event->param.p == nullptr) {
            VELMORA_LOGE("param.p should not be NULL!");
        }
        if (m_Pair != nullptr) {
            AnswerSyncPair(m_Pair);
            FreeSyncPair(m_Pair);
        }
    }
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;

private:
    const TCEvent* m_Event;
    void* m_Pair;
};

void DispatchByPointer(const TCEvent* event, TCHandler* receiver)
{
    const Answer answer(event);
    receiver->OnEvent(event);
}

void DispatchByValue(TCEvent& event)
{
    if (event.deleted) {
        VELMORA_LOGI("deleted event");
    } else {
        try {
            event.receiver->OnEvent(&event);
        } catch (...) {
            event.receiver->OnClear(&event);
            throw;
        }
    }
    event.receiver->OnClear(&event);
}

thread_local TCEventIO::Private::Dispatch* g_Innermost = nullptr;

} // namespace

// A dispatch in progress, on the stack of its thread.
//
// For GLib the watch may recurse, which saves two system calls an event. Yet a loop that a handler
// runs on the same context must not dispatch the queue's next event. There the watch takes itself
// off the context, and the end of the dispatch attaches it again.
class TCEventIO::Private::Dispatch
{
public:
    explicit Dispatch(TCEventIO* queue) : m_Queue(queue), m_Outer(g_Innermost)
    {
        g_Innermost = this;
    }
    ~Dispatch()
    {
        SENNET_CHECK(g_Innermost == this);
        g_Innermost = m_Outer;
        if (m_Context == nullptr) {
            return;
        }
        SENNET_CHECK(m_Queue != nullptr);
        GSource* const watch = m_Queue->m_Source;
        if (watch != nullptr && !g_source_is_destroyed(watch)) {
            g_source_attach(watch, m_Context);
        }
    }
    Dispatch(const Dispatch&) = delete;
    Dispatch& operator=(const Dispatch&) = delete;

    // The queue's dispatch that the calling thread is in, or null.
    static Dispatch* Of(const TCEventIO& queue)
    {
        Dispatch* dispatch = g_Innermost;
        while (dispatch != nullptr && dispatch->m_Queue != &queue) {
            dispatch = dispatch->m_Outer;
        }
        return dispatch;
    }

    // Replaces the watch by one that is not attached yet. GLib destroys the present one, whose
    // callback this is. The watch is off already if a subclass has called the callback itself.
    void TakeWatchOff(GIOChannel* channel)
    {
        if (m_Context != nullptr) {
            return;
        }
        GSource* const present = std::exchange(m_Queue->m_Source, MakeWatch(*m_Queue, channel));
        g_source_set_priority(m_Queue->m_Source, g_source_get_priority(present));
        m_Context = g_source_get_context(present);
        g_source_unref(present);
    }
    void LeaveWatchOff() { m_Context = nullptr; }

    void ForgetQueue() { m_Queue = nullptr; }
    bool QueueIsGone() const { return m_Queue == nullptr; }

private:
    TCEventIO* m_Queue; // null once a handler has destroyed it
    Dispatch* m_Outer;
    GMainContext* m_Context = nullptr; // of the watch that a nested loop has taken off
};

void TCEventIO::Private::KeepWatchOff(TCEventIO& queue)
{
    if (Dispatch* const dispatch = Dispatch::Of(queue)) {
        dispatch->LeaveWatchOff();
    }
}

void TCEventIO::Private::LeaveDispatch(TCEventIO& queue)
{
    if (Dispatch* const dispatch = Dispatch::Of(queue)) {
        dispatch->ForgetQueue();
    }
}

// Takes the first entry off the list: moves a copy into `event`, or sets `byPointer`. True with
// neither if the list is empty.
bool TCEventIO::m_Get(TCEvent* event, TCEvent** byPointer, unsigned long timeout)
{
    std::list<TCEvent*> node; // freed after the lock
    if (!m_QueueMutex.Try(timeout)) {
        VELMORA_LOGE("Try lock mutex fail!");
        return false;
    }
    bool created = false;
    {
        const Lock lock(m_QueueMutex, std::adopt_lock);
        created = m_FlagCreate;
        if (created && !m_EventList.empty()) {
            Private::Unlink(*this, m_EventList.begin(), node);
        }
    }
    if (!created) {
        VELMORA_LOGE("event io %s has destroyed!", m_Name.c_str());
        return false;
    }
    if (node.empty()) {
        return true;
    }
    TCEvent* const entry = node.front();
    if (entry->sync) {
        *byPointer = entry;
    } else {
        const std::unique_ptr<TCEvent> owned(entry);
        if (IsExitEvent(*owned)) {
            m_Exit = owned->deleted ? ExitRequest::Lost : ExitRequest::Taken;
        }
        *event = std::move(*owned);
    }
    return true;
}

gboolean TCEventIO::m_InterIOWatch(GIOChannel* channel, GIOCondition /*condition*/, gpointer data)
{
    auto* const self = static_cast<TCEventIO*>(data);
    if (self->m_Stopped || !Private::OwnsPipe(*self)) {
        return FALSE;
    }
    if (auto* const outer = Private::Dispatch::Of(*self)) {
        outer->TakeWatchOff(channel);
        return FALSE;
    }
    TCEvent event;
    TCEvent* byPointer = nullptr;
    if (!self->m_Get(&event, &byPointer, Private::kLockWait)) {
        return TRUE; // entry and byte stay, and cause the next callback
    }
    if (const GIOStatus status = Private::ReadByte(*self, channel); status != G_IO_STATUS_NORMAL) {
        if (byPointer != nullptr) {
            Private::PutBack(*self, byPointer);
        }
        const bool goesOn = status == G_IO_STATUS_EOF;
        if (!goesOn) {
            g_source_unref(std::exchange(self->m_Source, nullptr));
        }
        Private::PursueExit(*self);
        return goesOn ? TRUE : FALSE;
    }
    if (self->m_Exit == ExitRequest::Taken) {
        self->m_Exit = ExitRequest::Dispatched;
    }

    const Private::Dispatch dispatch(self);
    [[maybe_unused]] const unsigned long id = byPointer != nullptr ? byPointer->id : event.id;
    SENNET_TRACE(dispatch_begin, data, self->m_Name.c_str(), id);
    if (byPointer != nullptr) {
        DispatchByPointer(byPointer, byPointer->receiver);
    } else if (event.receiver != nullptr) {
        DispatchByValue(event);
    }
    SENNET_TRACE(dispatch_end, data, id); // the queue may be gone
    if (!dispatch.QueueIsGone()) {
        Private::PursueExit(*self);
    }
    return TRUE;
}

void TCEventIO::Private::PutBack(TCEventIO& queue, TCEvent* byPointer)
{
    Entries node{byPointer};
    const Lock lock(queue.m_QueueMutex);
    Link(queue, node, true);
}

} // namespace Velmora
