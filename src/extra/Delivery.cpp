// SPDX-License-Identifier: MIT
#include "extra/Delivery.h"

#include <deque>
#include <utility>

#include "Locks.h"
#include "QueueRef.h"
#include "extra/OnContext.h"

namespace Velmora::Internal {

// Posts to a queue without waiting for its lock, which other threads take all the time. What cannot
// be posted at once is posted by a thread that may wait, and so is what follows it meanwhile.
struct Delivery::QueuePosts
{
    explicit QueuePosts(TCEventIO& itsQueue) : queue(itsQueue) {}

    const QueueRef queue;
    Mutex mutex;
    // The first one is just being posted.
    std::deque<std::function<void()>> waiting SENNET_THREAD_SAFETY(guarded_by(mutex));

    // Returns whether PostWaiting() is to be called.
    bool PostOrWait(std::function<void()>& callable)
    {
        const Lock lock(mutex);
        if (waiting.empty() && queue.TryPost(callable).value_or(false)) {
            return false;
        }
        waiting.push_back(std::move(callable));
        return waiting.size() == 1;
    }

    // What the queue refuses is destroyed here, and not on a thread of the bus.
    void PostWaiting()
    {
        for (bool more = true; more;) {
            std::function<void()> first;
            {
                const Lock lock(mutex);
                first = std::move(waiting.front());
            }
            queue.Post(first);
            first = nullptr;
            const Lock lock(mutex);
            waiting.pop_front();
            more = !waiting.empty();
        }
    }

    void Drop()
    {
        std::deque<std::function<void()>> dropped; // destroyed after the lock
        const Lock lock(mutex);
        dropped.swap(waiting);
    }
};

Delivery Delivery::ToQueue(TCEventIO& queue)
{
    Delivery delivery;
    delivery.m_Queue = std::make_shared<QueuePosts>(queue);
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
    } else if (m_Queue == nullptr) {
        LibraryThread::Run(std::move(callable));
    } else if (m_Queue->PostOrWait(callable) &&
               !WaitingThread::Run([queue = m_Queue] { queue->PostWaiting(); })) {
        m_Queue->Drop();
    }
}

} // namespace Velmora::Internal
