// SPDX-License-Identifier: MIT
// The one place where the event queue knows of the bus service.
#pragma once

namespace Velmora {

class TCEvent;

namespace Internal {

// Delivers the message of an EVENT_TRANSFER_MESSAGE, on the thread of the target's queue. It is in
// TCServerSend.cpp, next to the send that makes these events.
void DeliverTransferredMessage(const TCEvent& event);

} // namespace Internal
} // namespace Velmora
