// SPDX-License-Identifier: MIT
// Which owners of called names have left the bus. The brokers answer "NoReply" for a peer that
// leaves and for a time limit of their own; only the signal NameOwnerChanged tells them apart, and
// both brokers send it first.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <gio/gio.h>

namespace Velmora::Internal {

// Of one connection. No lock: its owner has one.
class OwnerLeaves
{
public:
    // Begins to listen for a name, if that is new; returns a mark for HasLeft(). The listener that
    // was not used for the longest time makes room.
    std::uint64_t Listen(GDBusConnection* connection, const std::string& name);

    // Whether the owner of the name has left since the mark was taken; true if nobody listens.
    bool HasLeft(const std::string& name, std::uint64_t mark) const;

    // Looks at a signal that has come.
    void Note(GDBusMessage* signal);

    void StopAll(GDBusConnection* connection);

private:
    struct Listener
    {
        std::uint64_t used;
        std::uint64_t left; // when the owner left
    };

    std::map<std::string, Listener> m_Listeners;
    std::uint64_t m_Now = 0; // counts the uses and the leaves
};

} // namespace Velmora::Internal
