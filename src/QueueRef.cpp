// SPDX-License-Identifier: MIT
#include "QueueRef.h"

#include <atomic>
#include <optional>
#include <unordered_map>
#include <utility>

#include "Locks.h"
#include "SendOwned.h"
#include "TCEventIOPrivate.h"

namespace Velmora::Internal {

struct QueueLife
{
    explicit QueueLife(TCEventIO& owner) : queue(&owner) {}

    Mutex mutex;
    std::condition_variable left;                             // the last pin has gone
    TCEventIO* queue SENNET_THREAD_SAFETY(guarded_by(mutex)); // null once it is gone
    unsigned int pins SENNET_THREAD_SAFETY(guarded_by(mutex)) = 0;
};

namespace {

// The queues to which something has referred. The destructor of a queue asks here; where nothing
// ever refers to a queue, it reads the count alone.
struct KnownQueues
{
    Mutex mutex;
    std::atomic<std::size_t> count{0}; // written under the mutex
    std::unordered_map<const TCEventIO*, std::shared_ptr<QueueLife>>
        lives SENNET_THREAD_SAFETY(guarded_by(mutex));
};

// Never destroyed: a queue of static storage may be the last one.
KnownQueues& Known()
{
    static auto& known = *new KnownQueues;
    return known;
}

// Keeps a queue from being destroyed. No lock is held meanwhile, because the queue's own is taken.
class QueuePin
{
public:
    explicit QueuePin(QueueLife* life) : m_Life(life)
    {
        if (m_Life != nullptr) {
            const Lock lock(m_Life->mutex);
            m_Queue = m_Life->queue;
            ++m_Life->pins;
        }
    }
    ~QueuePin()
    {
        if (m_Life != nullptr) {
            const Lock lock(m_Life->mutex);
            if (--m_Life->pins == 0) {
                m_Life->left.notify_all();
            }
        }
    }
    QueuePin(const QueuePin&) = delete;
    QueuePin& operator=(const QueuePin&) = delete;

    TCEventIO* Queue() const { return m_Queue; }

private:
    QueueLife* const m_Life;
    TCEventIO* m_Queue = nullptr;
};

// Calls `post` with an entry that runs the callable. Returns what `post` returns.
template <typename Post>
auto PostCallable(TCEventIO& queue, std::function<void()>& callable, const Post& post)
{
    auto entry = std::make_unique<TCEvent>();
    entry->receiver = &queue;
    entry->id = EVENT_EXECUTE_FUNCTION;
    auto owned = std::make_unique<std::function<void()>>(std::move(callable));
    entry->param.p = owned.get();
    const std::optional<bool> queued = post(queue, std::move(entry));
    if (queued.value_or(false)) {
        static_cast<void>(owned.release()); // the queue's: its t_Clear frees it
    } else {
        callable = std::move(*owned);
    }
    return queued;
}

} // namespace

QueueRef::QueueRef(TCEventIO& queue)
{
    KnownQueues& known = Known();
    const Lock lock(known.mutex);
    auto& life = known.lives[&queue];
    if (life == nullptr) {
        life = std::make_shared<QueueLife>(queue);
        known.count = known.lives.size();
    }
    m_Life = life;
}

bool QueueRef::IsReady() const
{
    const QueuePin pin(m_Life.get());
    return pin.Queue() != nullptr && TCEventIO::Private::IsReady(*pin.Queue());
}

bool QueueRef::Post(std::function<void()>& callable) const
{
    const QueuePin pin(m_Life.get());
    const auto post = [](TCEventIO& queue, std::unique_ptr<TCEvent> entry) {
        return TCEventIO::Private::PostQuietly(queue, std::move(entry), false);
    };
    return pin.Queue() != nullptr && PostCallable(*pin.Queue(), callable, post).value_or(false);
}

std::optional<bool> QueueRef::TryPost(std::function<void()>& callable, bool urgent) const
{
    const QueuePin pin(m_Life.get());
    const auto post = [urgent](TCEventIO& queue, std::unique_ptr<TCEvent> entry) {
        return TCEventIO::Private::TryPostQuietly(queue, std::move(entry), urgent);
    };
    return pin.Queue() != nullptr ? PostCallable(*pin.Queue(), callable, post) : false;
}

void QueueRef::Leave(TCEventIO& queue)
{
    KnownQueues& known = Known();
    if (known.count == 0) {
        return;
    }
    std::shared_ptr<QueueLife> life;
    {
        const Lock lock(known.mutex);
        const auto found = known.lives.find(&queue);
        if (found == known.lives.end()) {
            return;
        }
        life = std::move(found->second);
        known.lives.erase(found);
        known.count = known.lives.size();
    }
    Lock lock(life->mutex);
    life->queue = nullptr;
    while (life->pins > 0) {
        lock.Wait(life->left);
    }
}

} // namespace Velmora::Internal
