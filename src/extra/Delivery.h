// SPDX-License-Identifier: MIT
// Where a result goes: to a queue, to a main context, or to the library's own thread.
#pragma once

#include <functional>
#include <memory>

#include <glib.h>

#include "TCEventIO.h"

namespace Velmora::Internal {

class Delivery
{
public:
    static Delivery ToQueue(TCEventIO& queue);
    static Delivery ToContext(GMainContext* context); // null means the caller's thread-default
    static Delivery ToLibraryThread() { return {}; }

    // Runs the callable there, in the order of these calls; destroys it unrun if that is not
    // possible any more. Waits for nothing and runs no client code.
    void Post(std::function<void()> callable) const;

private:
    struct QueuePosts;

    std::shared_ptr<QueuePosts> m_Queue;
    std::shared_ptr<GMainContext> m_Context;
};

} // namespace Velmora::Internal
