// SPDX-License-Identifier: MIT
// The calls that one TCCall has started together, and the one delivery of their results.
#pragma once

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "Locks.h"
#include "extra/CallOutcome.h"
#include "extra/Delivery.h"
#include "extra/PendingCall.h"

namespace Velmora::Internal {

class CallGroup : public std::enable_shared_from_this<CallGroup>
{
public:
    using Handler = std::function<void(CallResults& results)>;
    // What becomes of a handler that cannot be called where it should be.
    enum class IfUndelivered {
        Destroy,
        CallOnLibraryThread, // with Cancelled
    };

    static std::shared_ptr<CallGroup> Make(std::size_t size, Delivery where,
                                           IfUndelivered ifUndelivered, Handler handler);
    CallGroup(Delivery where, IfUndelivered ifUndelivered, Handler handler);

    const std::vector<std::shared_ptr<PendingCall>>& Calls() const { return m_Calls; }

    // Once, when all calls may end. So an empty group ends here.
    void NoteStarted() { NoteEnd(); }
    // A call has ended.
    void Take(std::size_t index, CallOutcome outcome);

    // Ends the calls that have not ended, and lets the result be delivered.
    void Cancel();
    // The same for the end of the TCCall. A handler that may be destroyed is: if it runs on another
    // thread, this waits for it.
    void Abandon();
    // The handler is not called from now on, whatever it was for.
    void Detach();
    // The handler runs, has run or was destroyed.
    bool HasBegun() const;
    // The handler does not run any more.
    bool IsOver() const;

private:
    enum class State { Waiting, Running, Over };

    void NoteEnd();
    void Deliver();
    void Run(bool delivered);
    void NoteUndelivered();

    const Delivery m_Where;
    const IfUndelivered m_IfUndelivered;
    std::vector<std::shared_ptr<PendingCall>> m_Calls; // constant after Make()
    std::atomic<std::size_t> m_Unfinished{1};          // calls, and the start
    // Each written by the thread that ends its call; read when all have ended.
    std::vector<std::unique_ptr<CallOutcome>> m_Outcomes;

    mutable Mutex m_Mutex;
    std::condition_variable m_Finished; // the handler has returned
    State m_State SENNET_THREAD_SAFETY(guarded_by(m_Mutex)) = State::Waiting;
    std::thread::id m_Runner SENNET_THREAD_SAFETY(guarded_by(m_Mutex));
    Handler m_Handler SENNET_THREAD_SAFETY(guarded_by(m_Mutex)); // while waiting
};

} // namespace Velmora::Internal
