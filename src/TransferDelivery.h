// The one place where the event core knows of the bus service.
#pragma once

namespace Velmora {

class TCEvent;

namespace Internal {

// Delivers an EVENT_TRANSFER_MESSAGE with its message, on the thread of the target's queue.
void DeliverTransferredMessage(const TCEvent& event);

} // namespace Internal
} // namespace Velmora
