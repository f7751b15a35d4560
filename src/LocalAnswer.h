// SPDX-License-Identifier: MIT
// Answers that a service of this process owes to a caller in this process.
#pragma once

#include <functional>
#include <memory>

#include "InboundCall.h"
#include "ServerLife.h"

namespace Velmora::Internal {

// Takes the answer, or null for the error reply; returns false if the caller does not wait any
// more. Called once, on any thread; runs no client code.
using AnswerTaker = std::function<bool(const TCMessage* answer)>;

std::unique_ptr<AnswerLater> OpenLocalAnswer(const ServerLife& service, AnswerTaker take);

// The service is closed: its callers get the error reply.
void FailLocalAnswers(const ServerLife& service);

} // namespace Velmora::Internal
