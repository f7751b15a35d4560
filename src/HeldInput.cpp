#include "HeldInput.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Velmora::Internal {

namespace {

struct Gate
{
    std::mutex mutex;
    std::condition_variable opened;
    int holds = 0; // guarded by the mutex
};

// One for the process, which has one connection. Never destroyed: the worker may be waiting.
Gate& TheGate()
{
    static auto& gate = *new Gate;
    return gate;
}

GDBusMessage* AwaitOpenGate(GDBusConnection* /*connection*/, GDBusMessage* message,
                            gboolean incoming, gpointer /*data*/)
{
    if (incoming != 0) {
        // For a moment at most, even if who holds it waits for an answer, in a log function say.
        std::unique_lock<std::mutex> lock(TheGate().mutex);
        TheGate().opened.wait_for(lock, std::chrono::seconds(1),
                                  [] { return TheGate().holds == 0; });
    }
    return message;
}

} // namespace

HeldInput::HeldInput(GDBusConnection* connection) : m_Connection(connection)
{
    {
        const std::lock_guard<std::mutex> lock(TheGate().mutex);
        ++TheGate().holds;
    }
    m_FilterId = g_dbus_connection_add_filter(connection, &AwaitOpenGate, nullptr, nullptr);
}

HeldInput::~HeldInput()
{
    {
        const std::lock_guard<std::mutex> lock(TheGate().mutex);
        if (--TheGate().holds == 0) {
            TheGate().opened.notify_all();
        }
    }
    g_dbus_connection_remove_filter(m_Connection, m_FilterId);
}

} // namespace Velmora::Internal
