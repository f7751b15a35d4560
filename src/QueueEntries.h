// SPDX-License-Identifier: MIT
// Entries of a queue that are more than the copy of an event. They are recognised by their types,
// because everything else in an event, `id` and `param.p` included, is set by its sender.
#pragma once

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <typeinfo>
#include <utility>

#include "TCEventIO.h"

namespace Velmora::Internal {

// The exit event of a TCTask::Destroy.
class ExitEvent final : public TCEvent
{};

inline bool IsExitEvent(const TCEvent& entry)
{
    return entry.id == EVENT_EXIT_TASK && typeid(entry) == typeid(ExitEvent);
}

// A call that a thread waits for until it has run or has been given up.
class AwaitedCall
{
public:
    explicit AwaitedCall(std::function<void()> call) : m_Call(std::move(call)) {}

    void Run()
    {
        if (!m_Claimed.exchange(true)) {
            m_Call();
            m_Over.set_value();
        }
    }
    void GiveUp()
    {
        if (!m_Claimed.exchange(true)) {
            m_Over.set_value();
        }
    }
    void Wait() { m_Over.get_future().wait(); }

private:
    const std::function<void()> m_Call; // throws nothing
    std::atomic<bool> m_Claimed{false};
    std::promise<void> m_Over;
};

class AwaitedEvent final : public TCEvent
{
public:
    explicit AwaitedEvent(std::shared_ptr<AwaitedCall> call) : m_Call(std::move(call)) {}
    void GiveUp() const { m_Call->GiveUp(); }

private:
    std::shared_ptr<AwaitedCall> m_Call;
};

} // namespace Velmora::Internal
