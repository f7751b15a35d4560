// Incoming messages of a bus connection, held back.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

#include <gio/gio.h>

namespace Velmora::Internal {

// As long as it stands, GDBus's worker thread waits with the next message that it has read. A call
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
    struct Gate
    {
        std::mutex mutex;
        std::condition_variable opened;
        bool open = false; // guarded by the mutex
    };
    using SharedGate = std::shared_ptr<Gate>;

    static GDBusMessage* Filter(GDBusConnection* connection, GDBusMessage* message,
                                gboolean incoming, gpointer gate);

    GDBusConnection* m_Connection;
    SharedGate m_Gate = std::make_shared<Gate>(); // the worker may be inside when this ends
    unsigned int m_FilterId;
};

} // namespace Velmora::Internal
