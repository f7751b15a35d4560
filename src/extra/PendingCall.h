// SPDX-License-Identifier: MIT
// A call between its start and its end.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <gio/gio.h>

#include "ServerLife.h"
#include "extra/CallOutcome.h"

namespace Velmora::Internal {

class CallGroup;

class PendingCall
{
public:
    // @param index its place in the results of the group
    PendingCall(std::shared_ptr<CallGroup> group, std::size_t index);
    ~PendingCall();
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

    // The first end counts: an answer, the time limit, a cancel, a close, a loss. Any thread.
    // Returns false if the call has ended before.
    bool End(CallOutcome outcome);
    bool HasEnded() const { return m_Ended; }

    // What the table of calls knows, guarded by the table's lock.
    struct Entry
    {
        std::multimap<gint64, PendingCall*>::iterator place; // by the deadline
        std::shared_ptr<ServerState> server;                 // that has sent it
        GDBusConnection* connection = nullptr;               // null for a call within the process
        std::string name;                                    // the bus name that was called
        std::uint64_t ownerMark = 0;                         // of OwnerLeaves
        volatile guint32 serial = 0; // written by GDBus before the call is on its way
    };
    Entry entry;

private:
    std::atomic<bool> m_Ended{false};
    std::shared_ptr<CallGroup> m_Group; // until the end, whose thread takes it
    const std::size_t m_Index;
};

} // namespace Velmora::Internal
