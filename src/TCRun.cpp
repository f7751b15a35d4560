// SPDX-License-Identifier: MIT
// A caller of RunAndWait() that waits for its callable.
#include "TCRun.h"

#include "QueueEntries.h"
#include "SendOwned.h"
#include "TCEventIOPrivate.h"

namespace Velmora {

using namespace Internal;

void Internal::RunAndAwait(TCEventIO* receiver, std::function<void()> callable)
{
    using Queue = TCEventIO::Private;
    if (receiver != nullptr && Queue::IsOnLoopThread(*receiver)) {
        callable();
        return;
    }
    const auto call = std::make_shared<AwaitedCall>(std::move(callable));
    auto event = std::make_unique<AwaitedEvent>(call);
    event->receiver = receiver;
    event->id = EVENT_EXECUTE_FUNCTION;
    TCEventIO* const queue = Queue::FindQueue(event.get());
    if (queue == nullptr) {
        return;
    }
    // Is destroyed with the last copy of the function, and then gives the call up if it has not
    // run.
    std::shared_ptr<AwaitedCall> queued(call.get(),
                                        [call](AwaitedCall* unrun) { unrun->GiveUp(); });
    auto function =
        std::make_unique<std::function<void()>>([queued = std::move(queued)] { queued->Run(); });
    const bool accepted = HandOver(std::move(function), [&](void* param) { // t_Clear frees it
        event->param.p = param;
        return Queue::Report(*queue, Queue::PostOwned(*queue, std::move(event), false));
    });
    if (!accepted) {
        return;
    }
    if (Queue::IsStopped(*queue)) {
        call->GiveUp(); // Stop may have come before the entry
    }
    call->Wait();
}

} // namespace Velmora
