// SPDX-License-Identifier: MIT
#include "InboundCall.h"

namespace Velmora::Internal {

namespace {

thread_local InboundCall* g_Innermost = nullptr;

} // namespace

InboundCall::InboundCall(GDBusConnection* connection, std::string sender, bool wantsAnswer)
    : m_Connection(connection), m_Sender(std::move(sender)), m_WantsAnswer(wantsAnswer),
      m_Outer(std::exchange(g_Innermost, this))
{}

InboundCall::~InboundCall()
{
    g_Innermost = m_Outer;
}

InboundCall* InboundCall::Current()
{
    return g_Innermost;
}

std::unique_ptr<AnswerLater> InboundCall::TakeAnswer()
{
    if (!m_WantsAnswer || m_AnswerTaken) {
        return nullptr;
    }
    std::unique_ptr<AnswerLater> answer = MoveAnswer();
    m_AnswerTaken = answer != nullptr;
    return answer;
}

} // namespace Velmora::Internal
