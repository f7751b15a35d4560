// SPDX-License-Identifier: MIT
#include "TCReply.h"

#include <utility>

#include "InboundCall.h"

namespace Velmora {

using namespace Internal;

TCReply::TCReply() = default;

TCReply::TCReply(std::unique_ptr<AnswerLater> answer) : m_Answer(std::move(answer)) {}

TCReply::~TCReply() = default;

TCReply::TCReply(TCReply&& other) noexcept = default;

TCReply& TCReply::operator=(TCReply&& other) noexcept = default;

TCReply TCReply::Later()
{
    InboundCall* const call = InboundCall::Current();
    return TCReply(call != nullptr ? call->TakeAnswer() : nullptr);
}

bool TCReply::Answer(const TCMessage& message)
{
    const std::unique_ptr<AnswerLater> answer = std::move(m_Answer);
    return answer != nullptr && answer->Answer(message);
}

} // namespace Velmora
