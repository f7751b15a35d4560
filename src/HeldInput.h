// Incoming messages of the bus connection, held back.
#pragma once

#include <gio/gio.h>

namespace Velmora::Internal {

// As long as one stands, GDBus's worker thread waits with the next message that it has read. A call
// that arrives between the request of a name and the export of its object would find no object; a
// service that is started by its first message would lose that one.
class HeldInput
{
public:
    explicit HeldInput(GDBusConnection* connection);
    ~HeldInput();
    HeldInput(const HeldInput&) = delete;
    HeldInput& operator=(const HeldInput&) = delete;

private:
    GDBusConnection* m_Connection;
    unsigned int m_FilterId;
};

} // namespace Velmora::Internal
