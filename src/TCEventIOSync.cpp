// SPDX-License-Identifier: MIT
// Senders that wait, for a handler or for a ping.
#include <algorithm>
#include <utility>

#include "Locks.h"
#include "SyncPair.h"
#include "TCEventIOPrivate.h"

namespace Velmora {

using namespace Internal;

namespace {

constexpr unsigned long kSyncWait = 20000000;  // microseconds
constexpr unsigned long kTakeBackWait = 10000; // microseconds
constexpr unsigned long kPingWaitMin = 2100;   // microseconds

} // namespace

bool TCEventIO::SendSyncEvent(TCEvent* event)
{
    TCEventIO* const queue = Private::FindQueue(event);
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
    if (Private::AwaitHandler(*queue, event, pair[0])) {
        LeaveSyncPair(std::move(pair));
    }
    return true;
}

bool TCEventIO::Private::AwaitHandler(TCEventIO& queue, const TCEvent* event, TCSemaphore& handled)
{
    if (handled.Try(kSyncWait)) {
        return true;
    }
    // Poll both conditions: whoever clears the queue holds its lock until this sender has left the
    // pair, and after an answer the queue may already be destroyed. If the event is not in the
    // list, its handler is running; wait for it.
    while (!handled.Try(kTakeBackWait)) {
        if (!queue.m_QueueMutex.Try(kLockWait)) {
            continue;
        }
        Entries node; // freed after the lock
        const Lock lock(queue.m_QueueMutex, std::adopt_lock);
        Entries& list = queue.m_EventList;
        const auto entry = std::find(list.begin(), list.end(), event);
        if (entry != list.end()) {
            Unlink(queue, entry, node);
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

} // namespace Velmora
