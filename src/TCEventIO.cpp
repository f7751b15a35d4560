#include "TCEventIO.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <utility>

#include "GLibPtr.h"
#include "MutexGuard.h"
#include "SyncPair.h"
#include "TransferDelivery.h"

namespace Velmora {

using namespace Internal;

namespace {

constexpr unsigned long kLockWait = 1000;      // microseconds
constexpr unsigned long kSyncWait = 20000000;  // microseconds
constexpr unsigned long kTakeBackWait = 10000; // microseconds
constexpr unsigned long kPingWaitMin = 2100;   // microseconds

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

TCEventIO::TCEventIO(std::string name) : m_Name(std::move(name))
{
    m_EventIO = this;
    m_IOValue = 10;
    m_QueueMutex.Create();
}

TCEventIO::~TCEventIO()
{
    m_ReleaseWatch();
    m_QueueMutex.Destroy();
}

bool TCEventIO::Init(GMainLoop* loop)
{
    VELMORA_LOGI(" %s : %p", m_Name.c_str(), static_cast<void*>(loop));
    if (m_FlagCreate) {
        return true;
    }
    m_ReleaseWatch(); // left by an Init whose t_Init said no
    m_MainLoop = loop;
    if (!m_OpenPipe() || !m_AttachWatch()) {
        m_ReleaseWatch();
        return false;
    }
    {
        const MutexGuard guard(m_QueueMutex);
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
    const MutexGuard guard(m_QueueMutex);
    m_ClearEntries();
    m_ReleaseWatch();
    m_FlagCreate = false;
}

bool TCEventIO::t_Init()
{
    return true;
}

void TCEventIO::t_Final() {}

TCEventIO* TCEventIO::m_FindQueue(const TCEvent* event)
{
    if (event == nullptr) {
        VELMORA_LOG_NULL("event");
        return nullptr;
    }
    if (event->receiver == nullptr) {
        VELMORA_LOGE("receiver is NULL");
        return nullptr;
    }
    TCEventIO* const queue = event->receiver->m_EventIO;
    if (queue == nullptr) {
        VELMORA_LOGE("receiver has no event io");
    }
    return queue;
}

bool TCEventIO::SendEvent(TCEvent* event)
{
    TCEventIO* const queue = m_FindQueue(event);
    return queue != nullptr && queue->m_Put(event);
}

bool TCEventIO::SendUrgentEvent(TCEvent* event)
{
    TCEventIO* const queue = m_FindQueue(event);
    return queue != nullptr && queue->m_Insert(event);
}

bool TCEventIO::SendSyncEvent(TCEvent* event)
{
    TCEventIO* const queue = m_FindQueue(event);
    if (queue == nullptr) {
        return false;
    }
    SyncPairPtr pair = MakeSyncPair();
    if (!pair) {
        return false;
    }
    event->param.p = pair.get();
    event->sync = true;
    if (!queue->m_Put(event)) {
        VELMORA_LOGE("SendSyncEvent fails!");
        return false;
    }
    if (queue->m_AwaitHandler(event, pair[0])) {
        LeaveSyncPair(std::move(pair));
    }
    return true;
}

// False when the sender has taken the event back: then no receiving side has seen the pair.
bool TCEventIO::m_AwaitHandler(const TCEvent* event, TCSemaphore& handled)
{
    if (handled.Try(kSyncWait)) {
        return true;
    }
    // Neither side is waited for alone: who clears the queue holds its lock until this sender has
    // left the pair, and a queue that has answered may be gone. An entry that is not in the list is
    // with its handler.
    while (!handled.Try(kTakeBackWait)) {
        if (!m_QueueMutex.Try(kLockWait)) {
            continue;
        }
        std::list<TCEvent*> own; // freed after the lock
        const MutexGuard guard(m_QueueMutex, std::adopt_lock);
        const auto entry = std::find(m_EventList.begin(), m_EventList.end(), event);
        if (entry != m_EventList.end()) {
            own.splice(own.begin(), m_EventList, entry);
            --m_EntryCount;
            return false;
        }
    }
    return true;
}

bool TCEventIO::Ping(TCEventIO* target, unsigned long timeout)
{
    if (target == nullptr) {
        return false;
    }
    SyncPairPtr pair = MakeSyncPair();
    if (!pair) {
        return false;
    }
    TCEvent event;
    event.receiver = target;
    event.id = EVENT_PING;
    event.param.p = pair.get();
    if (!SendEvent(&event)) {
        return false;
    }
    const bool alive = pair[0].Try(timeout < kPingWaitMin ? kPingWaitMin : timeout);
    LeaveSyncPair(std::move(pair));
    return alive;
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
    const MutexGuard guard(m_QueueMutex);
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
    // The copy and the list's node are made before the lock is taken: whatever throws, nothing is
    // queued, and the lock is held for as long as the byte takes.
    std::unique_ptr<TCEvent> copy(event->sync ? nullptr : new TCEvent(*event));
    std::list<TCEvent*> node{copy ? copy.get() : event};
    if (!m_Report(m_Post(node, false))) {
        return false;
    }
    static_cast<void>(copy.release()); // the list's: m_Get or the clearing frees it
    return true;
}

bool TCEventIO::m_Insert(TCEvent* event)
{
    auto copy = std::make_unique<TCEvent>(*event);
    copy->sync = false; // left set by a SendSyncEvent of the same object
    std::list<TCEvent*> node{copy.get()};
    if (!m_Report(m_Post(node, true))) {
        return false;
    }
    static_cast<void>(copy.release()); // as in m_Put
    return true;
}

TCEventIO::PostResult TCEventIO::m_Post(std::list<TCEvent*>& node, bool urgent)
{
    const MutexGuard guard(m_QueueMutex);
    if (!m_FlagCreate) {
        return PostResult::NotCreated;
    }
    const PostResult result = m_WriteByte();
    if (result == PostResult::Queued) {
        // The loop may see the byte already, but cannot look at the list before the lock is free.
        m_EventList.splice(urgent ? m_EventList.begin() : m_EventList.end(), node);
        ++m_EntryCount;
    }
    return result;
}

bool TCEventIO::m_Report(PostResult result) const
{
    switch (result) {
    case PostResult::Queued:
        return true;
    case PostResult::NotCreated:
        VELMORA_LOGE("event io %s has destroyed!", m_Name.c_str());
        return false;
    case PostResult::PipeFull:
        VELMORA_LOGE("event io %s is full!", m_Name.c_str());
        return false;
    case PostResult::WriteFailed: // told where the error was at hand
        return false;
    }
    return false;
}

bool TCEventIO::m_Get(TCEvent* event, TCEvent** byPointer, unsigned long timeout)
{
    std::list<TCEvent*> taken; // freed after the lock
    {
        if (!m_QueueMutex.Try(timeout)) {
            VELMORA_LOGE("Try lock mutex fail!");
            return false;
        }
        const MutexGuard guard(m_QueueMutex, std::adopt_lock);
        if (!m_FlagCreate) {
            VELMORA_LOGE("event io %s has destroyed!", m_Name.c_str());
            return false;
        }
        if (m_EventList.empty()) {
            return true;
        }
        taken.splice(taken.begin(), m_EventList, m_EventList.begin());
        --m_EntryCount;
    }
    TCEvent* const entry = taken.front();
    if (entry->sync) {
        *byPointer = entry;
    } else {
        const std::unique_ptr<TCEvent> owned(entry);
        *event = std::move(*owned);
    }
    return true;
}

gboolean TCEventIO::m_InterIOWatch(GIOChannel* channel, GIOCondition /*condition*/, gpointer data)
{
    auto* const self = static_cast<TCEventIO*>(data);
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
        return FALSE;
    case G_IO_STATUS_EOF:
        VELMORA_LOGW("Read char from pipe to the end!");
        return TRUE;
    case G_IO_STATUS_NORMAL:
        break;
    }
    --self->m_UnreadBytes;

    if (byPointer != nullptr) {
        DispatchByPointer(byPointer, byPointer->receiver);
    } else if (event.receiver != nullptr) {
        DispatchByValue(event);
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

// Clears the list from its head until it is empty, entries that are added meanwhile included.
void TCEventIO::m_ClearEntries()
{
    while (!m_EventList.empty()) {
        TCEvent* const entry = m_EventList.front();
        m_EventList.pop_front();
        --m_EntryCount;
        if (!entry->sync) {
            const std::unique_ptr<TCEvent> owned(entry);
            if (owned->receiver != nullptr) {
                owned->receiver->OnClear(owned.get());
            }
        } else if (void* const pair = entry->param.p; pair != nullptr) {
            AnswerSyncPair(pair);
            FreeSyncPair(pair);
        }
    }
}

bool TCEventIO::t_OnEvent(const TCEvent* event)
{
    if (event == nullptr) {
        return false;
    }
    void* const param = event->param.p;
    switch (event->id) {
    case EVENT_EXIT_TASK:
        if (GMainLoop* const loop = m_MainLoop; loop != nullptr) {
            g_main_loop_quit(loop);
        }
        return true;
    case EVENT_TRANSFER_MESSAGE:
        VELMORA_LOGI("transfer async internal event to sync message call");
        if (param != nullptr) {
            DeliverTransferredMessage(*event);
        }
        return true;
    case EVENT_PING:
        if (param != nullptr) {
            AnswerSyncPair(param);
        }
        return true;
    case EVENT_EXECUTE_FUNCTION:
        VELMORA_LOGI("execute function in this event io");
        if (param != nullptr) {
            (*static_cast<std::function<void()>*>(param))();
        }
        return true;
    default:
        return false;
    }
}

void TCEventIO::t_Clear(TCEvent* event)
{
    if (event == nullptr) {
        return;
    }
    switch (event->id) {
    case EVENT_TRANSFER_MESSAGE:
        VELMORA_LOGI("clear message memory");
        delete static_cast<TCMessage*>(
            std::exchange(event->param.p, nullptr)); // the sender's `new`
        break;
    case EVENT_PING:
        if (event->param.p != nullptr) {
            FreeSyncPair(event->param.p);
        }
        break;
    case EVENT_CLEAR_QUEUE:
        if (m_QueueMutex.Try(kLockWait)) {
            const MutexGuard guard(m_QueueMutex, std::adopt_lock);
            m_ClearEntries();
        }
        break;
    case EVENT_EXECUTE_FUNCTION:
        VELMORA_LOGI("clear message memory");
        delete static_cast<std::function<void()>*>(
            std::exchange(event->param.p, nullptr)); // the sender's `new`
        break;
    default:
        break;
    }
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
