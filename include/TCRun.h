/// @file
/// Callables on the thread of a queue's loop, without an event of one's own.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "TCEventIO.h"

namespace Velmora {

namespace Internal {

// Never made: only reaches what a queue keeps for its subclasses.
class QueueThread : public TCEventIO
{
public:
    static bool IsCurrent(TCEventIO& queue)
    {
        TCMutex& mutex = queue.*&QueueThread::m_QueueMutex;
        mutex.Lock(); // keeps away Final(), until which the loop is there
        GMainLoop* const loop = queue.*&QueueThread::m_MainLoop;
        const bool current =
            queue.*&QueueThread::m_FlagCreate &&
            g_main_context_is_owner(loop != nullptr ? g_main_loop_get_context(loop) : nullptr) != 0;
        mutex.Unlock();
        return current;
    }
};

} // namespace Internal

/// Queues a callable as EVENT_EXECUTE_FUNCTION and returns: it runs on the thread of the queue's
/// loop, in its turn among the events, also when this is called on that thread. Any thread.
///
/// It is the queue's from here on. One whose entry is deleted, swept or finalised is destroyed
/// without having run, and so is one that comes to a queue whose t_OnEvent() does not pass the id
/// on to TCEventIO. An exception that leaves it ends a task's process, as in
/// TCHandler::t_OnEvent().
/// @param queue may be null, which is refused
/// @param callable an empty one is refused; what it refers to lives until it has run or is
///                 destroyed
/// @return false, with a log line, for an empty callable or if the queue does not accept events,
///         see TCEventIO::SendEvent(); the callable is destroyed then
inline bool Run(TCEventIO* queue, std::function<void()> callable)
{
    if (!callable) {
        VELMORA_LOG_NULL("callable"); // to call it would end the process
        return false;
    }
    auto owned = std::make_unique<std::function<void()>>(std::move(callable));
    TCEvent event;
    event.receiver = queue;
    event.id = EVENT_EXECUTE_FUNCTION;
    event.param.p = owned.get();
    if (!SendEvent(&event)) {
        return false;
    }
    static_cast<void>(owned.release()); // the queue's: its t_Clear frees it
    return true;
}

/// Runs a callable on the thread of the queue's loop and waits for its result, however long that
/// takes. Inside that loop, in a handler above all, it runs at once and nothing is queued.
///
/// Returns without a result as soon as it is certain that the callable will not run: the queue has
/// refused it or has destroyed it, see Run(), EVENT_EXIT_TASK has quit the loop, or the queue is a
/// task whose set-up or thread has failed or whose t_Main() has returned. On a queue whose loop
/// does not run for another reason that takes until Final(); on one that is destructed without
/// Final(), or whose t_Clear() does not pass the id on to TCEventIO, for ever. So it must not be
/// called where the loop is waited for: by the thread of the loop while that does not run (a task's
/// Init() and t_Create()), in a t_Clear(), and by two queues for each other.
///
/// @param queue may be null, which gives no result; outlives the call
/// @param callable anything that is called without arguments; it stays the caller's, and nothing
///                 touches it after the return
/// @return std::optional with a copy of what the callable has returned, or empty; for a callable
///         that returns nothing, bool: whether it has run
/// @throw whatever the callable has thrown
template <typename Callable>
auto RunAndWait(TCEventIO* queue, Callable&& callable)
{
    using Result = std::decay_t<std::invoke_result_t<Callable&>>;
    using Outcome = std::conditional_t<std::is_void_v<Result>, bool, std::optional<Result>>;
    std::packaged_task<Result()> task([&] { return std::invoke(callable); });
    bool begun = false;
    const auto call = [&] {
        begun = true;
        task();
    };
    if (queue != nullptr && Internal::QueueThread::IsCurrent(*queue)) {
        call();
    } else {
        Internal::RunAndAwait(queue, call);
    }
    if (!begun) {
        return Outcome();
    }
    if constexpr (std::is_void_v<Result>) {
        task.get_future().get();
        return Outcome(true);
    } else {
        return Outcome(task.get_future().get());
    }
}

} // namespace Velmora
