// SPDX-License-Identifier: MIT
// The rendezvous of a synchronous send or a ping: two semaphores on the heap, which `param.p` of
// the event points to.
//
// The receiving side gives the first one ("handled") and takes the second. The sender takes the
// first, with a timeout, and gives the second ("left") exactly once, as its last touch. From then
// on only the receiving side uses the pair, and frees it. The sender frees a pair that no receiving
// side has seen.
#pragma once

#include <memory>

#include "TCMutexPrivate.h"

namespace Velmora::Internal {

struct SyncPairRelease
{
    void operator()(TCSemaphore* pair) const
    {
        pair[0].Destroy();
        pair[1].Destroy();
        delete[] pair; // made by MakeSyncPair
    }
};

using SyncPairPtr = std::unique_ptr<TCSemaphore[], SyncPairRelease>;

// Null if a semaphore could not be created.
inline SyncPairPtr MakeSyncPair()
{
    SyncPairPtr pair(new TCSemaphore[2]);
    if (!pair[0].Create(0) || !pair[1].Create(0)) {
        return nullptr;
    }
    return pair;
}

// The sender's last touch: hands the pair over to the receiving side.
inline void LeaveSyncPair(SyncPairPtr pair)
{
    pair.release()[1].Give();
}

// The receiving side's first half: lets the sender continue.
inline void AnswerSyncPair(void* pair)
{
    TCSemaphore::Private::GiveKept(static_cast<TCSemaphore*>(pair)[0]); // freed by FreeSyncPair
}

// The receiving side's second half: waits until the sender has left, then frees the pair.
inline void FreeSyncPair(void* pair)
{
    const SyncPairPtr owned(static_cast<TCSemaphore*>(pair));
    owned[1].Take();
}

} // namespace Velmora::Internal
