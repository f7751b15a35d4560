// SPDX-License-Identifier: MIT
// A queue that its owner may destroy at any time, for what posts to it later.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "TCEventIO.h"

namespace Velmora::Internal {

struct QueueLife;

class QueueRef
{
public:
    QueueRef() = default; // refers to no queue
    explicit QueueRef(TCEventIO& queue);

    explicit operator bool() const { return m_Life != nullptr; }

    // Whether the queue exists and is between Init() and Final().
    bool IsReady() const;

    // Queues the callable as EVENT_EXECUTE_FUNCTION; returns false, without a log line, if the
    // queue is gone or does not take it. The callable is moved from only if it was queued. Runs no
    // client code.
    bool Post(std::function<void()>& callable) const;
    // The same, but waits for nothing: for the worker thread of GDBus, since whoever holds the
    // queue's lock may wait for the bus. Empty if another thread holds that lock.
    // `urgent` puts it before all entries.
    std::optional<bool> TryPost(std::function<void()>& callable, bool urgent = false) const;

    // For the destructor of a queue: nothing is posted from now on. Waits for the posts of other
    // threads.
    static void Leave(TCEventIO& queue);

private:
    std::shared_ptr<QueueLife> m_Life;
};

} // namespace Velmora::Internal
