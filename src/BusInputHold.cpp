// SPDX-License-Identifier: MIT
#include "BusInputHold.h"

#include "Locks.h"

namespace Velmora::Internal {

namespace {

constexpr std::chrono::seconds kLongest{1};

struct HoldState
{
    Mutex mutex;
    std::condition_variable released;
    int holds SENNET_THREAD_SAFETY(guarded_by(mutex)) = 0;
};

// Never destroyed: a worker thread may be waiting when the process ends.
HoldState& State()
{
    static auto& state = *new HoldState;
    return state;
}

} // namespace

BusInputHold::BusInputHold()
{
    HoldState& state = State();
    const Lock lock(state.mutex);
    ++state.holds;
}

BusInputHold::~BusInputHold()
{
    HoldState& state = State();
    const Lock lock(state.mutex);
    SENNET_CHECK(state.holds > 0);
    if (--state.holds == 0) {
        state.released.notify_all();
    }
}

void BusInputHold::AwaitRelease()
{
    HoldState& state = State();
    Lock lock(state.mutex);
    if (state.holds == 0) {
        return;
    }
    const auto end = std::chrono::steady_clock::now() + kLongest;
    while (state.holds > 0 && std::chrono::steady_clock::now() < end) {
        lock.WaitUntil(state.released, end);
    }
}

} // namespace Velmora::Internal
