// SPDX-License-Identifier: MIT
#include "extra/Delivery.h"

#include <utility>

#include "extra/OnContext.h"

namespace Velmora::Internal {

Delivery Delivery::ToQueue(TCEventIO& queue)
{
    Delivery delivery;
    delivery.m_Queue = QueueRef(queue);
    return delivery;
}

Delivery Delivery::ToContext(GMainContext* context)
{
    Delivery delivery;
    delivery.m_Context.reset(context != nullptr ? g_main_context_ref(context)
                                                : g_main_context_ref_thread_default(),
                             g_main_context_unref);
    return delivery;
}

void Delivery::Post(std::function<void()> callable) const
{
    if (m_Context != nullptr) {
        PostToContext(m_Context.get(), std::move(callable));
        return;
    }
    if (!m_Queue) {
        LibraryThread::Run(std::move(callable));
        return;
    }
    if (!m_Queue.TryPost(callable).value_or(false)) {
        // Once more where it may wait for the queue's lock. If the queue refuses it, the callable
        // is destroyed there, too, and not on a thread of the bus.
        LibraryThread::Run(
            [queue = m_Queue, callable = std::move(callable)]() mutable { queue.Post(callable); });
    }
}

} // namespace Velmora::Internal
