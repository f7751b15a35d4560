// SPDX-License-Identifier: MIT
#include "TCEventIO.h"

#include <cerrno>
#include <memory>
#include <utility>

#include "Locks.h"
#include "QueueEntries.h"
#include "QueueRef.h"
#include "SyncPair.h"
#include "TCEventIOPrivate.h"
#include "Trace.h"

namespace Velmora {

using namespace Internal;

TCEventIO::TCEventIO(std::string name) : m_Name(std::move(name)), m_Exit(ExitRequest::None)
{
    m_EventIO = this;
    m_IOValue = 10;
    m_QueueMutex.Create();
}

TCEventIO::~TCEventIO()
{
    QueueRef::Leave(*this);
    Private::ReleaseWatch(*this);
    Private::LeaveDispatch(*this); // of the handler that destroys this queue
    m_QueueMutex.Destroy();
}

bool TCEventIO::Init(GMainLoop* loop)
{
    VELMORA_LOGI(" %s : %p", m_Name.c_str(), static_cast<void*>(loop));
    if (m_FlagCreate) {
        return true;
    }
    Private::ReleaseWatch(*this); // left by an Init whose t_Init has failed
    m_MainLoop = loop;
    m_Stopped = false;
    m_Exit = ExitRequest::None;
    if (!Private::OpenPipe(*this) || !Private::AttachWatch(*this)) {
        Private::ReleaseWatch(*this);
        return false;
    }
    {
        const Lock lock(m_QueueMutex);
        m_FlagCreate = t_Init();
    }
    VELMORA_LOGI("End");
    return m_FlagCreate;
}

void TCEventIO::Final()
{
    VELMORA_LOGI(" %s : %p", m_Name.c_str(), static_cast<void*>(m_MainLoop.load()));
    if (!m_FlagCreate) {
        VELMORA_LOGI("already final");
        return;
    }
    const Lock lock(m_QueueMutex);
    Private::ClearEntries(*this);
    Private::ReleaseWatch(*this);
    m_FlagCreate = false;
    Private::PursueExit(*this); // a Destroy may wait for an event that was cleared
}

bool TCEventIO::t_Init()
{
    return true;
}

void TCEventIO::t_Final() {}

TCEventIO* TCEventIO::Private::FindQueue(const TCEvent* event)
{
    if (event == nullptr) {
        VELMORA_LOG_NULL("event");
        return nullptr;
    }
    if (event->receiver == nullptr) {
        VELMORA_LOGE("receiver is NULL");
        return nullptr;
    }
    TCEventIO* const queue = TCHandler::Private::QueueOf(*event->receiver);
    if (queue == nullptr) {
        VELMORA_LOGE("receiver has no event io");
    }
    return queue;
}

bool TCEventIO::SendEvent(TCEvent* event)
{
    TCEventIO* const queue = Private::FindQueue(event);
    return queue != nullptr && queue->m_Put(event);
}

bool TCEventIO::SendUrgentEvent(TCEvent* event)
{
    TCEventIO* const queue = Private::FindQueue(event);
    return queue != nullptr && queue->m_Insert(event);
}

unsigned int TCEventIO::CountEvent() const
{
    return m_EntryCount;
}

int TCEventIO::DeleteEvent(const TCHandler* handler)
{
    return m_DeleteEvent(handler, false, 0);
}

int TCEventIO::DeleteEvent(unsigned long id, const TCHandler* handler)
{
    return m_DeleteEvent(handler, true, id);
}

int TCEventIO::m_DeleteEvent(const TCHandler* handler, bool compareIds, unsigned long id)
{
    if (!m_FlagCreate) {
        VELMORA_LOGI("m_FlagCreate is false");
        return -1;
    }
    if (handler == nullptr) {
        handler = this;
    }
    int count = 0;
    const Lock lock(m_QueueMutex);
    for (TCEvent* entry : m_EventList) {
        if (entry->receiver == handler && (!compareIds || entry->id == id)) {
            entry->deleted = true;
            ++count;
        }
    }
    return count;
}

bool TCEventIO::m_Put(TCEvent* event)
{
    // The copy and the list's node are made before the lock is taken: if one of them throws,
    // nothing is queued, and the lock is only held for the byte and the list.
    if (!event->sync) {
        return Private::Report(*this,
                               Private::PostOwned(*this, std::make_unique<TCEvent>(*event), false));
    }
    std::list<TCEvent*> node{event};
    return Private::Report(*this, m_Post(node, false));
}

bool TCEventIO::m_Insert(TCEvent* event)
{
    auto copy = std::make_unique<TCEvent>(*event);
    copy->sync = false; // still set if the same object went through SendSyncEvent
    return Private::Report(*this, Private::PostOwned(*this, std::move(copy), true));
}

TCEventIO::PostResult TCEventIO::Private::PostOwned(TCEventIO& queue,
                                                    std::unique_ptr<TCEvent> entry, bool urgent)
{
    Entries node{entry.get()};
    const PostResult result = queue.m_Post(node, urgent);
    if (result == PostResult::Queued) {
        static_cast<void>(entry.release()); // the list's: m_Get or ClearEntries frees it
    }
    return result;
}

bool TCEventIO::Private::PostQuietly(TCEventIO& queue, std::unique_ptr<TCEvent> entry, bool urgent)
{
    return PostOwned(queue, std::move(entry), urgent) == PostResult::Queued;
}

std::optional<bool> TCEventIO::Private::TryPostQuietly(TCEventIO& queue,
                                                       std::unique_ptr<TCEvent> entry, bool urgent)
{
    if (!queue.m_QueueMutex.Try(0)) {
        return std::nullopt;
    }
    const Lock lock(queue.m_QueueMutex, std::adopt_lock);
    return PostQuietly(queue, std::move(entry), urgent);
}

// Writes the byte of the node's entry and links the entry at one end of the list, or does neither.
TCEventIO::PostResult TCEventIO::m_Post(std::list<TCEvent*>& node, bool urgent)
{
    int error = 0;
    {
        const Lock lock(m_QueueMutex);
        if (!m_FlagCreate || !Private::OwnsPipe(*this)) {
            return PostResult::NotCreated;
        }
        error = Private::WriteByte(*this);
        if (error == 0) {
            // The loop may see the byte already, but cannot look at the list before the lock is
            // free.
            Private::Link(*this, node, urgent);
        }
    }
    if (error == 0) {
        return PostResult::Queued;
    }
    if (error == EAGAIN) {
        return PostResult::PipeFull;
    }
    VELMORA_LOGE("event io %s: write to pipe fail,%s", m_Name.c_str(), g_strerror(error));
    return PostResult::WriteFailed;
}

bool TCEventIO::Private::Report(const TCEventIO& queue, PostResult result)
{
    switch (result) {
    case PostResult::Queued:
        return true;
    case PostResult::NotCreated:
        VELMORA_LOGE("event io %s has destroyed!", queue.m_Name.c_str());
        return false;
    case PostResult::PipeFull:
        VELMORA_LOGE("event io %s is full!", queue.m_Name.c_str());
        return false;
    case PostResult::WriteFailed: // already logged by m_Post, which knows the error
        return false;
    }
    return false;
}

void TCEventIO::Private::Link(TCEventIO& queue, Entries& node, bool urgent)
{
    [[maybe_unused]] const unsigned long id = node.front()->id;
    queue.m_EventList.splice(urgent ? queue.m_EventList.begin() : queue.m_EventList.end(), node);
    NoteSize(queue);
    SENNET_TRACE(queue_put, queue.m_Name.c_str(), id, queue.m_EntryCount.load());
}

void TCEventIO::Private::Unlink(TCEventIO& queue, Entries::iterator entry, Entries& node)
{
    node.splice(node.begin(), queue.m_EventList, entry);
    NoteSize(queue);
}

void TCEventIO::Private::NoteSize(TCEventIO& queue)
{
    queue.m_EntryCount = static_cast<unsigned int>(queue.m_EventList.size());
}

void TCEventIO::Private::ClearEntries(TCEventIO& queue)
{
    while (!queue.m_EventList.empty()) {
        Entries node;
        Unlink(queue, queue.m_EventList.begin(), node);
        TCEvent* const entry = node.front();
        if (!entry->sync) {
            const std::unique_ptr<TCEvent> owned(entry);
            if (IsExitEvent(*owned)) {
                queue.m_Exit = ExitRequest::Lost;
            }
            if (owned->receiver != nullptr) {
                owned->receiver->OnClear(owned.get());
            }
        } else if (void* const pair = entry->param.p; pair != nullptr) {
            AnswerSyncPair(pair);
            FreeSyncPair(pair);
        }
    }
}

// A task takes its loop out of the queue under this lock before it releases it.
GMainLoop* TCEventIO::Private::RefLoop(TCEventIO& queue)
{
    const Lock lock(queue.m_QueueMutex);
    GMainLoop* const loop = queue.m_MainLoop;
    return loop != nullptr ? g_main_loop_ref(loop) : nullptr;
}

bool TCEventIO::Private::IsOnLoopThread(TCEventIO& queue)
{
    const Lock lock(queue.m_QueueMutex); // keeps Final away, until which the loop exists
    GMainLoop* const loop = queue.m_MainLoop;
    return queue.m_FlagCreate &&
           g_main_context_is_owner(loop != nullptr ? g_main_loop_get_context(loop) : nullptr) != 0;
}

bool SendEvent(TCEvent* event)
{
    return TCEventIO::SendEvent(event);
}

bool SendUrgentEvent(TCEvent* event)
{
    return TCEventIO::SendUrgentEvent(event);
}

bool SendSyncEvent(TCEvent* event)
{
    return TCEventIO::SendSyncEvent(event);
}

} // namespace Velmora
