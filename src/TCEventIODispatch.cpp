// The loop's side of a queue: the watch on the pipe, and one entry, one byte and one handler in
// each of its callbacks.
#include "TCEventIO.h"

#include <memory>
#include <new>
#include <utility>

#include <unistd.h>

#include "GLibPtr.h"
#include "MutexGuard.h"
#include "QueueEntries.h"
#include "SyncPair.h"

namespace Velmora {

using namespace Internal;

namespace {

// What follows OnEvent for an event queued by pointer, also when the handler has thrown: once the
// sender is answered, the event is not touched any more. The pair is noted before, so that a
// handler that writes into `param.p` or sends the event on does not keep its sender for ever.
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

} // namespace

// A dispatch that is under way, on the stack of its thread.
//
// The watch may recurse as GLib sees it, which saves two system calls an event; yet a loop that a
// handler runs on the same context must not dispatch the queue's next event. There the watch takes
// itself off the context, and the end of the dispatch puts it back.
class TCEventIO::Dispatch
{
public:
    explicit Dispatch(TCEventIO* queue) : m_Queue(queue), m_Outer(s_Innermost)
    {
        s_Innermost = this;
    }
    ~Dispatch()
    {
        s_Innermost = m_Outer;
        if (m_Context == nullptr) {
            return;
        }
        GSource* const watch = m_Queue->m_Source;
        if (watch != nullptr && !g_source_is_destroyed(watch)) {
            g_source_attach(watch, m_Context);
        }
    }
    Dispatch(const Dispatch&) = delete;
    Dispatch& operator=(const Dispatch&) = delete;

    // The queue's dispatch that the calling thread is in, or null.
    static Dispatch* Of(const TCEventIO* queue)
    {
        Dispatch* dispatch = s_Innermost;
        while (dispatch != nullptr && dispatch->m_Queue != queue) {
            dispatch = dispatch->m_Outer;
        }
        return dispatch;
    }

    // Replaces the watch by one that is not attached yet. GLib destroys the present one, whose
    // callback this is.
    void TakeWatchOff(GIOChannel* channel)
    {
        GSource* const present = std::exchange(m_Queue->m_Source, m_Queue->m_MakeWatch(channel));
        g_source_set_priority(m_Queue->m_Source, g_source_get_priority(present));
        m_Context = g_source_get_context(present);
        g_source_unref(present);
    }
    void LeaveWatchOff() { m_Context = nullptr; }

    void ForgetQueue() { m_Queue = nullptr; }
    bool QueueIsGone() const { return m_Queue == nullptr; }

private:
    static thread_local Dispatch* s_Innermost;

    TCEventIO* m_Queue; // null once a handler has destroyed it
    Dispatch* m_Outer;
    GMainContext* m_Context = nullptr; // of the watch that a nested loop has taken off
};

thread_local TCEventIO::Dispatch* TCEventIO::Dispatch::s_Innermost = nullptr;

GSource* TCEventIO::m_MakeWatch(GIOChannel* channel)
{
    GSource* const watch = g_io_create_watch(channel, G_IO_IN);
    // GLib takes a source that may not recurse out of the poll set for each dispatch, and wakes the
    // context's own poll for it twice.
    g_source_set_can_recurse(watch, TRUE);
    g_source_set_callback(watch, G_SOURCE_FUNC(&TCEventIO::m_InterIOWatch), this, nullptr);
    return watch;
}

bool TCEventIO::m_AttachWatch()
{
    m_Channel = g_io_channel_unix_new(m_PipeFileDes[0]);
    if (m_Channel == nullptr) {
        VELMORA_LOGE("Create channel fail!");
        return false;
    }
    GError* raw = nullptr;
    const GIOStatus status = g_io_channel_set_encoding(m_Channel, nullptr, &raw);
    const ErrorPtr error(raw);
    if (status != G_IO_STATUS_NORMAL) {
        if (error) {
            VELMORA_LOGE("Read char from pipe fail,%s", error->message);
        }
        return false;
    }

    m_Source = m_MakeWatch(m_Channel);
    GMainLoop* const loop = m_MainLoop;
    g_source_attach(m_Source, loop != nullptr ? g_main_loop_get_context(loop) : nullptr);
    g_io_channel_unref(std::exchange(m_Channel, nullptr)); // the watch holds it from here on
    return true;
}

void TCEventIO::m_ReleaseWatch()
{
    if (Dispatch* const dispatch = Dispatch::Of(this)) {
        dispatch->LeaveWatchOff();
    }
    if (m_Source != nullptr) {
        DestroySource(std::exchange(m_Source, nullptr));
    }
    if (m_Channel != nullptr) {
        g_io_channel_unref(std::exchange(m_Channel, nullptr));
    }
    if (std::exchange(m_PipeOpen, false)) {
        close(m_PipeFileDes[1]);
        close(m_PipeFileDes[0]);
    }
}

void TCEventIO::m_LeaveDispatch()
{
    if (Dispatch* const dispatch = Dispatch::Of(this)) {
        dispatch->ForgetQueue();
    }
}

bool TCEventIO::m_Get(TCEvent* event, TCEvent** byPointer, unsigned long timeout)
{
    std::list<TCEvent*> taken; // freed after the lock
    if (!m_QueueMutex.Try(timeout)) {
        VELMORA_LOGE("Try lock mutex fail!");
        return false;
    }
    bool created = false;
    {
        const MutexGuard guard(m_QueueMutex, std::adopt_lock);
        created = m_FlagCreate;
        if (created && !m_EventList.empty()) {
            taken.splice(taken.begin(), m_EventList, m_EventList.begin());
            --m_EntryCount;
        }
    }
    if (!created) {
        VELMORA_LOGE("event io %s has destroyed!", m_Name.c_str());
        return false;
    }
    if (taken.empty()) {
        return true;
    }
    TCEvent* const entry = taken.front();
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
    if (self->m_Stopped || !self->m_OwnsPipe()) {
        return FALSE;
    }
    if (Dispatch* const outer = Dispatch::Of(self)) {
        outer->TakeWatchOff(channel);
        return FALSE;
    }
    TCEvent event;
    TCEvent* byPointer = nullptr;
    if (!self->m_Get(&event, &byPointer, kLockWait)) {
        return TRUE; // entry and byte stay, and with them the next callback
    }

    gchar byte[2] = {};
    gsize size = 0;
    GError* raw = nullptr;
    const GIOStatus status = g_io_channel_read_chars(channel, byte, 1, &size, &raw);
    const ErrorPtr error(raw);
    if (status != G_IO_STATUS_NORMAL && byPointer != nullptr) {
        self->m_PutBack(byPointer);
    }
    switch (status) {
    case G_IO_STATUS_ERROR:
    case G_IO_STATUS_AGAIN:
        if (error) {
            VELMORA_LOGE("Read char from pipe fail,%s", error->message);
        }
        g_source_unref(std::exchange(self->m_Source, nullptr));
        self->m_PursueExit();
        return FALSE;
    case G_IO_STATUS_EOF:
        VELMORA_LOGW("Read char from pipe to the end!");
        self->m_PursueExit();
        return TRUE;
    case G_IO_STATUS_NORMAL:
        break;
    }
    self->m_CountReadByte();
    if (self->m_Exit == ExitRequest::Taken) {
        self->m_Exit = ExitRequest::Dispatched;
    }

    const Dispatch dispatch(self);
    if (byPointer != nullptr) {
        DispatchByPointer(byPointer, byPointer->receiver);
    } else if (event.receiver != nullptr) {
        DispatchByValue(event);
    }
    if (!dispatch.QueueIsGone()) {
        self->m_PursueExit();
    }
    return TRUE;
}

// An event that is not the queue's cannot be lost with a failed read: its sender finds it in the
// list when its limit runs out, or Final does before.
void TCEventIO::m_PutBack(TCEvent* byPointer)
{
    const MutexGuard guard(m_QueueMutex);
    m_EventList.push_front(byPointer);
    ++m_EntryCount;
}

TCEventIO::PostResult TCEventIO::m_PostExit()
{
    auto event = std::make_unique<ExitEvent>();
    event->receiver = this;
    event->id = EVENT_EXIT_TASK;
    m_Exit = ExitRequest::Queued; // before the loop can have it
    const PostResult result = m_PostOwned(std::move(event), false);
    if (result != PostResult::Queued) {
        m_Exit = ExitRequest::Lost;
    }
    return result;
}

// Sees to it that the loop ends for a Destroy that waits, although its exit event was refused,
// deleted or cleared, or cannot be dispatched any more. A handler that has the event decides alone.
void TCEventIO::m_PursueExit()
{
    const ExitRequest request = m_Exit;
    if (request == ExitRequest::None || request == ExitRequest::Dispatched) {
        return;
    }
    // A queue that has stopped while its loop runs told the loop to quit before it ran.
    const bool watched = !m_Stopped && m_Source != nullptr && !g_source_is_destroyed(m_Source);
    if (watched && request == ExitRequest::Queued) {
        return;
    }
    if (watched && request == ExitRequest::Lost) {
        try {
            const PostResult result = m_PostExit();
            if (result == PostResult::Queued || result == PostResult::PipeFull) {
                return; // a full pipe has bytes, and each of them a callback that tries again
            }
        } catch (const std::bad_alloc&) { // not through GLib
        }
    }
    if (GMainLoop* const loop = m_MainLoop; loop != nullptr) {
        g_main_loop_quit(loop);
    }
}

} // namespace Velmora
