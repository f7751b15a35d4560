// SPDX-License-Identifier: MIT
// The events that a queue handles itself: what each one does, and how it is released.
#include <functional>
#include <mutex>
#include <utility>

#include "Locks.h"
#include "SyncPair.h"
#include "TCEventIOPrivate.h"
#include "TransferDelivery.h"

namespace Velmora {

using namespace Internal;

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
            Private::Stop(*this);
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
        if (m_QueueMutex.Try(Private::kLockWait)) {
            const Lock lock(m_QueueMutex, std::adopt_lock);
            Private::ClearEntries(*this);
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

} // namespace Velmora
