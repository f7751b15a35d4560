// SPDX-License-Identifier: MIT
/// @file
/// An answer that is given after the hook has returned.
#pragma once

#include <memory>

#include "SennetApi.h"
#include "TCMessage.h"

namespace Velmora {

/// @cond internal
namespace Internal {
class AnswerLater;
} // namespace Internal
/// @endcond

/// The answer to a message, to be given later and on any thread.
///
/// Later() in TCServer::IfMessageReceived() takes the answer over: the hook returns, its `reply` is
/// not used, and the service handles the next message meanwhile.
///
/// ~~~{.cpp}
/// bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
///                        const char* signalName) override
/// {
///     auto later = std::make_shared<TCReply>(TCReply::Later());
///     Run(&m_Worker, [later, request = *message] { later->Answer(Measure(request)); });
///     return true;
/// }
/// ~~~
///
/// Every caller gets exactly one answer. An object that is destroyed unanswered sends the error
/// reply (`"dbus_result":"fail"`). So does TCServer::AwaitHooks() of the service for what is still
/// open over the bus, and TCServer::CloseDBusServer() for callers in the same process.
///
/// A synchronous send in the same process waits for the answer like one over the bus: for its
/// timeout at most (25 seconds for -1), or until the service closes. It then returns true with the
/// error reply as text, since that route does not look at the reply.
///
/// An object has no lock: use it on one thread at a time, for example by moving it.
class SENNET_API TCReply
{
public:
    /// An empty object.
    TCReply();
    /// Answers with the error reply if nothing was answered. Blocks at most 5 seconds, if it is the
    /// last answer of a closed service and the bus does not read.
    ~TCReply();
    /// The source is empty afterwards.
    TCReply(TCReply&& other) noexcept;
    /// The answer that the target held gets the error reply.
    TCReply& operator=(TCReply&& other) noexcept;

    /// Takes over the answer to the message whose IfMessageReceived() runs on this thread.
    /// @return an empty object if no hook runs here, in a signal, if the sender wants no answer, or
    ///         if it was taken over before
    static TCReply Later();

    /// @return whether the object still holds the answer
    explicit operator bool() const { return m_Answer != nullptr; }

    /// Answers, from any thread. The object is empty afterwards.
    /// @param message copied; the limits of TCServer apply, and beyond them the caller gets the
    ///                error reply
    /// @return whether the answer was accepted; false if the object is empty, the service was
    ///         closed and awaited, the time of a caller in this process is over, or, with an error
    ///         line, the bus cannot carry the message
    bool Answer(const TCMessage& message);

private:
    explicit TCReply(std::unique_ptr<Internal::AnswerLater> answer);

    std::unique_ptr<Internal::AnswerLater> m_Answer;
};

} // namespace Velmora
