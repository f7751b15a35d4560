// What happens to each incoming message of a bus connection before GDBus looks at it, on GDBus's
// worker thread.
#pragma once

#include <string>
#include <utility>

#include <gio/gio.h>

namespace Velmora::Internal {

// For good: once a connection.
void AddIncomingFilter(GDBusConnection* connection);

// As long as one stands, the worker thread waits with the next message that it has read. A call
// that arrives between the request of a name and the export of its object would find no object; a
// service that is started by its first message would lose that one.
class HeldInput
{
public:
    HeldInput();
    ~HeldInput();
    HeldInput(const HeldInput&) = delete;
    HeldInput& operator=(const HeldInput&) = delete;
};

// Messages that are handed on without the descriptors that their sender has attached. A descriptor
// stays open until its message has been handled, and a peer that sends faster than that would use
// up all that the process may have, without which GLib ends it.
class NoDescriptors
{
public:
    // Calls to an object.
    explicit NoDescriptors(std::string path);
    // Signals; an empty interface stands for all.
    NoDescriptors(std::string interfaceName, std::string member);
    ~NoDescriptors();
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    // The path and nothing, or interface and member; a path begins with a "/".
    const std::pair<std::string, std::string> m_Rule;
};

} // namespace Velmora::Internal
