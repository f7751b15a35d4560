// The rendezvous of a synchronous send or a ping: two semaphores on the heap, reached through
// `param.p` of the event.
//
// The receiving side gives the first one ("handled") and takes the second; the sender takes the
// first with a limit and gives the second ("left") exactly once, as its last touch. From then on
// the pair belongs to the receiving side alone, which frees it. A pair that no receiving side has
// seen is freed by its sender.
#pragma once

#include <memory>

#include "TCMutex.h"

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

// Null if a semaphore could not be created; what was made is released.
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

// The receiving side's first half: the sender goes on.
inline void AnswerSyncPair(void* pair)
{
    static_cast<TCSemaphore*>(pair)[0].m_GiveKept(); // FreeSyncPair of this thread frees it
}

// The receiving side's second half: waits until the sender has left, then frees the pair.
inline void FreeSyncPair(void* pair)
{
    const SyncPairPtr owned(static_cast<TCSemaphore*>(pair));
    owned[1].Take();
}

} // namespace Velmora::Internal
