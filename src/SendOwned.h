// SPDX-License-Identifier: MIT
// Passes on what the caller owns, through `param.p` of an event or the `void*` of a C function.
#pragma once

#include <memory>
#include <utility>

#include "TCEventIO.h"

namespace Velmora::Internal {

// Calls `take` with the bare pointer. If that returns true, the object belongs to the receiver;
// otherwise, and if `take` throws, it is freed here.
template <typename Owner, typename Take>
bool HandOver(Owner owner, const Take& take)
{
    if (!take(owner.get())) {
        return false;
    }
    static_cast<void>(owner.release());
    return true;
}

// Sends the event with `param` as its `param.p`. A queue that accepts the event owns it: t_Clear of
// the receiver frees it.
template <typename T>
bool SendOwned(TCEvent& event, std::unique_ptr<T> param)
{
    return HandOver(std::move(param), [&event](T* taken) {
        event.param.p = taken;
        return TCEventIO::SendEvent(&event);
    });
}

// The same for an event without payloads.
template <typename T>
bool SendOwned(TCHandler& receiver, unsigned long id, std::unique_ptr<T> param)
{
    TCEvent event;
    event.receiver = &receiver;
    event.id = id;
    return SendOwned(event, std::move(param));
}

} // namespace Velmora::Internal
