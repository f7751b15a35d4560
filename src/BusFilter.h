// SPDX-License-Identifier: MIT
// The filter that each incoming message passes on GDBus's worker thread, before GDBus looks at it:
// it waits while a BusInputHold exists, and drops descriptors that the program has no use for.
#pragma once

#include <string>
#include <utility>

#include <gio/gio.h>

namespace Velmora::Internal {

// Call once for each connection. The filter is never removed.
void AddBusFilter(GDBusConnection* connection);

// While one exists, the messages that it names lose the descriptors that their sender attached. A
// descriptor stays open until its message has been handled. A peer that sends faster than that
// would use up all descriptors of the process, and GLib ends a process that gets no more.
class NoDescriptors
{
public:
    // Calls to the object at a path.
    explicit NoDescriptors(std::string path);
    // Signals; an empty interface means all interfaces.
    NoDescriptors(std::string interfaceName, std::string member);
    ~NoDescriptors();
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    // A path and an empty text, or interface and member. They cannot be mixed up, since a path
    // begins with a "/".
    const std::pair<std::string, std::string> m_Rule;
};

} // namespace Velmora::Internal
