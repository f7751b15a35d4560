// SPDX-License-Identifier: MIT
#include "extra/CallGroup.h"

#include <utility>

#include "TCLog.h"
#include "Trace.h"
#include "extra/CallTable.h"
#include "extra/OnContext.h"

namespace Velmora::Internal {

PendingCall::PendingCall(std::shared_ptr<CallGroup> group, std::size_t index)
    : m_Group(std::move(group)), m_Index(index)
{}

PendingCall::~PendingCall() = default;

bool PendingCall::End(CallOutcome outcome)
{
    if (m_Ended.exchange(true)) {
        return false;
    }
    VELMORA_LOGI("a call has ended: %s", outcome.text.c_str());
    SENNET_TRACE(call_end, this, static_cast<int>(outcome.kind));
    CallTable::Remove(*this);
    const std::shared_ptr<CallGroup> group = std::move(m_Group);
    group->Take(m_Index, std::move(outcome));
    return true;
}

std::shared_ptr<CallGroup> CallGroup::Make(std::size_t size, Delivery where,
                                           IfUndelivered ifUndelivered, Handler handler)
{
    auto group = std::make_shared<CallGroup>(std::move(where), ifUndelivered, std::move(handler));
    group->m_Unfinished += size;
    group->m_Outcomes.resize(size);
    for (std::size_t index = 0; index < size; ++index) {
        group->m_Calls.push_back(std::make_shared<PendingCall>(group, index));
    }
    return group;
}

CallGroup::CallGroup(Delivery where, IfUndelivered ifUndelivered, Handler handler)
    : m_Where(std::move(where)), m_IfUndelivered(ifUndelivered), m_Handler(std::move(handler))
{}

void CallGroup::Take(std::size_t index, CallOutcome outcome)
{
    m_Outcomes[index] = std::make_unique<CallOutcome>(std::move(outcome));
    NoteEnd();
}

void CallGroup::NoteEnd()
{
    if (--m_Unfinished == 0) {
        Deliver();
    }
}

void CallGroup::Deliver()
{
    if (IsOver()) { // detached
        return;
    }
    // Destroyed with the last copy of the callable, run or not.
    const std::shared_ptr<CallGroup> ticket(
        this, [self = shared_from_this()](CallGroup* group) { group->NoteUndelivered(); });
    m_Where.Post([ticket] { ticket->Run(true); });
}

void CallGroup::NoteUndelivered()
{
    if (HasBegun()) {
        return;
    }
    if (m_IfUndelivered == IfUndelivered::Destroy) {
        Detach();
    } else if (!LibraryThread::Run([self = shared_from_this()] { self->Run(false); })) {
        Run(false);
    }
}

void CallGroup::Run(bool delivered)
{
    struct Running
    {
        ~Running() // also if the handler throws
        {
            const Lock lock(group.m_Mutex);
            group.m_State = State::Over;
            group.m_Finished.notify_all();
        }
        CallGroup& group;
    };
    Handler taken;
    {
        const Lock lock(m_Mutex);
        if (m_State != State::Waiting) {
            return;
        }
        m_State = State::Running;
        m_Runner = std::this_thread::get_id();
        taken.swap(m_Handler);
    }
    const Running running{*this};
    const Handler handler = std::move(taken); // destroyed before the end is told
    CallResults results;
    for (const auto& outcome : m_Outcomes) {
        results.push_back(
            MakeResult(delivered ? *outcome
                                 : CallOutcome(TCCallResult::Kind::Cancelled,
                                               "the result could not be delivered to its queue")));
    }
    handler(results);
}

void CallGroup::Cancel()
{
    for (const auto& call : m_Calls) {
        call->End({TCCallResult::Kind::Cancelled, "the call was cancelled"});
    }
}

void CallGroup::Abandon()
{
    if (m_IfUndelivered == IfUndelivered::Destroy) {
        Detach();
    }
    Cancel();
}

void CallGroup::Detach()
{
    Handler destroyed; // after the lock
    Lock lock(m_Mutex);
    destroyed.swap(m_Handler);
    if (m_State == State::Waiting) {
        m_State = State::Over;
    }
    while (m_State == State::Running && m_Runner != std::this_thread::get_id()) {
        lock.Wait(m_Finished);
    }
}

bool CallGroup::HasBegun() const
{
    const Lock lock(m_Mutex);
    return m_State != State::Waiting;
}

bool CallGroup::IsOver() const
{
    const Lock lock(m_Mutex);
    return m_State == State::Over;
}

} // namespace Velmora::Internal
