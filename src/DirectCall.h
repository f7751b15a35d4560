// SPDX-License-Identifier: MIT
// The hook of a synchronous send within the process, and the wait for an answer that it defers.
#pragma once

#include "InboundCall.h"
#include "ServerLife.h"

namespace Velmora::Internal {

class DirectCall : public InboundCall
{
public:
    explicit DirectCall(const ServerLife& target);
    ~DirectCall() override;

    // Waits for the answer: at most `timeout` milliseconds, 25 s if negative, or until the target
    // is closed. `reply` receives the answer or the error reply.
    void AwaitAnswer(TCMessage& reply, int timeout);

    // While one exists, the next DirectCall of the thread wants no answer.
    class AnswerUnwanted
    {
    public:
        AnswerUnwanted();
        ~AnswerUnwanted();
        AnswerUnwanted(const AnswerUnwanted&) = delete;
        AnswerUnwanted& operator=(const AnswerUnwanted&) = delete;
    };

private:
    struct Answer;

    std::unique_ptr<AnswerLater> MoveAnswer() override;

    const ServerLife m_Target;
    std::shared_ptr<Answer> m_Answer; // once the answer is taken
};

} // namespace Velmora::Internal
