// SPDX-License-Identifier: MIT
// Holds back what the bus sends to this process, for a moment.
#pragma once

namespace Velmora::Internal {

// While one exists, GDBus's worker threads wait with the next message that they have read. A call
// that arrives between the request of a name and the export of its object would find no object, and
// a service that the bus starts for its first message would lose that message.
//
// The input of the whole process waits, so do nothing slow meanwhile, and nothing that needs an
// answer from the bus. The wait ends after one second in any case.
class BusInputHold
{
public:
    BusInputHold();
    ~BusInputHold();
    BusInputHold(const BusInputHold&) = delete;
    BusInputHold& operator=(const BusInputHold&) = delete;

    // For the worker thread: returns when there is no hold.
    static void AwaitRelease();
};

} // namespace Velmora::Internal
