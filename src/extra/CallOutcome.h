// SPDX-License-Identifier: MIT
// How a call has ended, as it is known where it ends. The result is made of it where it is
// delivered: what a peer has sent is not parsed on the worker thread of GDBus.
#pragma once

#include <memory>
#include <string>

#include <gio/gio.h>

#include "TCCall.h"

namespace Velmora::Internal {

struct CallOutcome
{
    using Kind = TCCallResult::Kind;

    // Of a call that ends without an answer.
    CallOutcome(Kind itsKind, std::string itsText) : kind(itsKind), text(std::move(itsText)) {}
    // The answer of a service in this process; null for the error reply.
    explicit CallOutcome(const TCMessage* itsReply);
    // The answer that has come over the bus. Without it, whether the owner of the name has left
    // could not be told from the bus's own time limit.
    CallOutcome(GDBusMessage* itsMessage, bool ownerHasLeft);

    Kind kind;
    std::string text;
    std::shared_ptr<TCMessage> reply;
    std::shared_ptr<GDBusMessage> message;
    bool ownerLeft = false;
};

TCCallResult MakeResult(const CallOutcome& outcome);

} // namespace Velmora::Internal
