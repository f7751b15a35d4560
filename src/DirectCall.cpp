// SPDX-License-Identifier: MIT
#include "DirectCall.h"

#include <chrono>
#include <utility>

#include "BusBody.h"
#include "LocalAnswer.h"
#include "Locks.h"

namespace Velmora::Internal {

namespace {

constexpr int kDefaultTimeout = 25000; // milliseconds, as GDBus has it

thread_local bool g_AnswerUnwanted = false;

} // namespace

struct DirectCall::Answer
{
    Mutex mutex;
    std::condition_variable given;
    bool isGiven SENNET_THREAD_SAFETY(guarded_by(mutex)) = false;
    bool isLate SENNET_THREAD_SAFETY(guarded_by(mutex)) = false; // nobody waits any more
    std::unique_ptr<TCMessage> message SENNET_THREAD_SAFETY(guarded_by(mutex)); // null: error reply
};

DirectCall::AnswerUnwanted::AnswerUnwanted()
{
    g_AnswerUnwanted = true;
}

DirectCall::AnswerUnwanted::~AnswerUnwanted()
{
    g_AnswerUnwanted = false;
}

DirectCall::DirectCall(const ServerLife& target)
    : InboundCall(nullptr, "", !std::exchange(g_AnswerUnwanted, false)), m_Target(target)
{}

DirectCall::~DirectCall() = default;

std::unique_ptr<AnswerLater> DirectCall::MoveAnswer()
{
    auto answer = std::make_shared<Answer>();
    auto taken = OpenLocalAnswer(m_Target, [answer](const TCMessage* message) {
        auto copy = message != nullptr ? std::make_unique<TCMessage>(*message) : nullptr;
        const Lock lock(answer->mutex);
        answer->isGiven = true;
        answer->message = std::move(copy);
        answer->given.notify_all();
        return !answer->isLate;
    });
    m_Answer = std::move(answer);
    return taken;
}

void DirectCall::AwaitAnswer(TCMessage& reply, int timeout)
{
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(timeout < 0 ? kDefaultTimeout : timeout);
    std::unique_ptr<TCMessage> message;
    {
        Lock lock(m_Answer->mutex);
        while (!m_Answer->isGiven && std::chrono::steady_clock::now() < end) {
            lock.WaitUntil(m_Answer->given, end);
        }
        m_Answer->isLate = !m_Answer->isGiven;
        message = std::move(m_Answer->message);
    }
    if (message != nullptr) {
        reply = *message;
    } else {
        SetErrorReply(reply);
    }
}

} // namespace Velmora::Internal
