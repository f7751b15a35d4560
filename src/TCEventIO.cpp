#include "TCEventIO.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <utility>

#include "MutexGuard.h"
#include "QueueEntries.h"
#include "SyncPair.h"
#include "TransferDelivery.h"

namespace Velmora {

using namespace Internal;

namespace {

constexpr unsigned long kSyncWait = 20000000;  // microseconds
constexpr unsigned long kTakeBackWait = 10000; // microseconds
constexpr unsigned long kPingWaitMin = 2100;   // microseconds

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
    m_LeaveDispatch(); // of the handler that destroys this queue
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
    m_Stopped = false;
    m_Exit = ExitRequest::None;
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
    m_PursueExit(); // a Destroy may wait for an event that was cleared
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
    if (!event->sync) {
        return m_Report(m_PostOwned(std::make_unique<TCEvent>(*event), false));
    }
    std::list<TCEvent*> node{event};
    return m_Report(m_Post(node, false));
}

bool TCEventIO::m_Insert(TCEvent* event)
{
    auto copy = std::make_unique<TCEvent>(*event);
    copy->sync = false; // left set by a SendSyncEvent of the same object
    return m_Report(m_PostOwned(std::move(copy), true));
}

TCEventIO::PostResult TCEventIO::m_PostOwned(std::unique_ptr<TCEvent> entry, bool urgent)
{
    std::list<TCEvent*> node{entry.get()};
    const PostResult result = m_Post(node, urgent);
    if (result == PostResult::Queued) {
        static_cast<void>(entry.release()); // the list's: m_Get or the clearing frees it
    }
    return result;
}

TCEventIO::PostResult TCEventIO::m_Post(std::list<TCEvent*>& node, bool urgent)
{
    int error = 0;
    {
        const MutexGuard guard(m_QueueMutex);
        if (!m_FlagCreate || !m_OwnsPipe()) {
            return PostResult::NotCreated;
        }
        error = m_WriteByte();
        if (error == 0) {
            // The loop may see the byte already, but cannot look at the list before the lock is
            // free.
            m_EventList.splice(urgent ? m_EventList.begin() : m_EventList.end(), node);
            ++m_EntryCount;
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
    case PostResult::WriteFailed: // told where the error is known
        return false;
    }
    return false;
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
            if (IsExitEvent(*owned)) {
                m_Exit = ExitRequest::Lost;
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

// From here on nothing is dispatched: the loop has been told to quit, or will never run.
void TCEventIO::m_Stop()
{
    m_Stopped = true;
    const MutexGuard guard(m_QueueMutex);
    for (const TCEvent* entry : m_EventList) {
        if (const auto* const awaited = dynamic_cast<const AwaitedEvent*>(entry)) {
            awaited->GiveUp();
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
            m_Stop();
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

void Internal::RunAndAwait(TCEventIO* receiver, std::function<void()> callable)
{
    const auto call = std::make_shared<AwaitedCall>(std::move(callable));
    auto event = std::make_unique<AwaitedEvent>(call);
    event->receiver = receiver;
    event->id = EVENT_EXECUTE_FUNCTION;
    TCEventIO* const queue = TCEventIO::m_FindQueue(event.get());
    if (queue == nullptr) {
        return;
    }
    // Goes with the last copy of the function, so that the call is given up if that has not run.
    std::shared_ptr<AwaitedCall> queued(call.get(),
                                        [call](AwaitedCall* unrun) { unrun->GiveUp(); });
    auto function =
        std::make_unique<std::function<void()>>([queued = std::move(queued)] { queued->Run(); });
    event->param.p = function.get();
    if (!queue->m_Report(queue->m_PostOwned(std::move(event), false))) {
        return;
    }
    static_cast<void>(function.release()); // the queue's: its t_Clear frees it
    if (queue->m_Stopped) {
        call->GiveUp(); // m_Stop may have come before the entry
    }
    call->Wait();
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
