#include "HeldInput.h"

namespace Velmora::Internal {

HeldInput::HeldInput(GDBusConnection* connection)
    : m_Connection(connection),
      m_FilterId(g_dbus_connection_add_filter(
          connection, &Filter,
          new SharedGate(m_Gate), // GDBus frees it by the function below when the filter is gone
          [](gpointer gate) { delete static_cast<SharedGate*>(gate); }))
{}

HeldInput::~HeldInput()
{
    {
        const std::lock_guard<std::mutex> lock(m_Gate->mutex);
        m_Gate->open = true;
        m_Gate->opened.notify_all();
    }
    g_dbus_connection_remove_filter(m_Connection, m_FilterId);
}

GDBusMessage* HeldInput::Filter(GDBusConnection* /*connection*/, GDBusMessage* message,
                                gboolean incoming, gpointer data)
{
    if (incoming != 0) {
        const SharedGate gate = *static_cast<SharedGate*>(data);
        std::unique_lock<std::mutex> lock(gate->mutex);
        gate->opened.wait(lock, [&gate] { return gate->open; });
    }
    return message;
}

} // namespace Velmora::Internal
