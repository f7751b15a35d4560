// SPDX-License-Identifier: MIT
/// @file
/// Runs callables on the thread of a queue's loop.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "TCEventIO.h"

namespace Velmora {

/// @cond internal
namespace Internal {
// Runs the callable at once on the thread of the loop; elsewhere returns when it has run or is
// certain not to run.
SENNET_API void RunAndAwait(TCEventIO* receiver, std::function<void()> callable);
} // namespace Internal
/// @endcond

/// Queues a callable as EVENT_EXECUTE_FUNCTION and returns. The callable runs on the thread of the
/// queue's loop, in its turn among the events, even if that is the calling thread. Any thread.
///
/// The queue owns the callable from now on. If its entry is deleted or cleared, or if t_OnEvent()
/// of the queue does not pass the id on to TCEventIO, the callable is destroyed without being run.
/// Do not let an exception out of it, see TCHandler::t_OnEvent().
/// @param queue if null, the call fails
/// @param callable if empty, the call fails; what it refers to must live until it has run or is
///                 destroyed
/// @return false, with a log line, if the callable is empty or the queue does not accept events,
///         see TCEventIO::SendEvent(); then the callable is destroyed
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

/// Runs a callable on the thread of the queue's loop and waits for its result, without a time
/// limit. Inside that loop, for example in a handler, the callable runs at once.
///
/// Returns without a result as soon as it is certain that the callable will not run: the queue has
/// refused or destroyed it, see Run(); EVENT_EXIT_TASK has quit the loop; or the queue is a task
/// whose set-up or thread has failed or whose t_Main() has returned. If the loop does not run for
/// another reason, this blocks until Final(). It blocks for ever if the queue is destructed without
/// Final(), or if t_Clear() of the queue does not pass the id on to TCEventIO.
///
/// So do not call it where the loop waits for the caller: on the loop's thread while the loop does
/// not run (Init() and t_Create() of a task), or in t_Clear(). Nor may the threads of two queues
/// call it for each other at the same time.
/// @param queue must outlive the call; null gives no result
/// @param callable anything that can be called without arguments; stays the caller's, and nothing
///                 touches it after the return
/// @return a std::optional with a copy of what the callable has returned, or empty. For a callable
///         that returns nothing: bool, true if it has run.
/// @throw whatever the callable has thrown
template <typename Callable>
auto RunAndWait(TCEventIO* queue, Callable&& callable)
{
    using Result = std::decay_t<std::invoke_result_t<Callable&>>;
    using Outcome = std::conditional_t<std::is_void_v<Result>, bool, std::optional<Result>>;
    std::packaged_task<Result()> task([&] { return std::invoke(callable); });
    bool begun = false;
    Internal::RunAndAwait(queue, [&] {
        begun = true;
        task();
    });
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
