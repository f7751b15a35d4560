// SPDX-License-Identifier: MIT
// The message or signal whose hook runs on a thread: who has sent it, and whether and how it can be
// answered after the hook has returned.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include <gio/gio.h>

#include "TCMessage.h"

namespace Velmora::Internal {

class Invocation;

// The right and the duty to answer a call. Unanswered, its caller gets the error reply when this is
// destroyed.
class AnswerLater
{
public:
    AnswerLater() = default;
    virtual ~AnswerLater() = default;
    AnswerLater(const AnswerLater&) = delete;
    AnswerLater& operator=(const AnswerLater&) = delete;

    // Called once at most. Returns false, with a log line if the message is at fault, if the caller
    // does not get the answer.
    virtual bool Answer(const TCMessage& message) = 0;
};

// Lives on the stack around a hook. Hooks may nest.
class InboundCall
{
public:
    // Without a connection, the sender is this process.
    InboundCall(GDBusConnection* connection, std::string sender, bool wantsAnswer);
    virtual ~InboundCall();
    InboundCall(const InboundCall&) = delete;
    InboundCall& operator=(const InboundCall&) = delete;

    // The innermost one of the calling thread, or null.
    static InboundCall* Current();

    GDBusConnection* Connection() const { return m_Connection; }
    const std::string& Sender() const { return m_Sender; }
    bool WantsAnswer() const { return m_WantsAnswer; }

    // Moves the answer out of the hook. Null if there is none to move.
    std::unique_ptr<AnswerLater> TakeAnswer();
    bool IsAnswerTaken() const { return m_AnswerTaken; }

    // For the code that has taken the invocation of this call, while its hook runs.
    virtual void Hold(Invocation& /*invocation*/) {}

private:
    virtual std::unique_ptr<AnswerLater> MoveAnswer() { return nullptr; }

    GDBusConnection* const m_Connection;
    const std::string m_Sender;
    const bool m_WantsAnswer;
    bool m_AnswerTaken = false;
    InboundCall* const m_Outer;
};

} // namespace Velmora::Internal
