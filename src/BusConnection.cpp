#include "BusConnection.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "IncomingFilter.h"
#include "TCLog.h"

namespace Velmora::Internal {

namespace {

// Of the handshake; GDBus gives the greeting behind it 25 seconds of its own.
constexpr std::chrono::seconds kConnectLimit{25};
constexpr std::chrono::seconds kFlushLimit{5};

// Something that is over when one thread says so, and that others wait for.
class Ending
{
public:
    void Tell()
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Over = true;
        m_Told.notify_all();
    }
    bool AwaitFor(std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Told.wait_for(lock, limit, [this] { return m_Over; });
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Told;
    bool m_Over = false; // guarded by the mutex
};

// Cancels what is done in its scope when that takes too long.
class TimeLimit
{
public:
    explicit TimeLimit(std::chrono::seconds limit) : m_Cancellable(g_cancellable_new())
    {
        try {
            m_Thread = std::thread([this, limit] { Watch(limit); });
        } catch (const std::system_error&) {
            // Without a limit then: GDBus, which needs a thread to connect, cannot do that either.
        }
    }
    ~TimeLimit()
    {
        m_ScopeLeft.Tell();
        if (m_Thread.joinable()) {
            m_Thread.join();
        }
    }
    TimeLimit(const TimeLimit&) = delete;
    TimeLimit& operator=(const TimeLimit&) = delete;

    GCancellable* Get() const { return m_Cancellable.get(); }

private:
    void Watch(std::chrono::seconds limit)
    {
        if (!m_ScopeLeft.AwaitFor(limit)) {
            VELMORA_LOGE("the bus has not answered within %d s", static_cast<int>(limit.count()));
            g_cancellable_cancel(m_Cancellable.get());
        }
    }

    std::unique_ptr<GCancellable, Releaser<g_object_unref>> m_Cancellable;
    Ending m_ScopeLeft;
    std::thread m_Thread;
};

// The library's own connection, as long as one of its servers holds it. Never destroyed: a server
// of static storage may be the last one.
struct OwnConnection
{
    std::mutex mutex;
    GWeakRef connection = {}; // guarded by the mutex
};

OwnConnection& TheOwnConnection()
{
    static auto& own = *new OwnConnection;
    return own;
}

ConnectionPtr IfOpen(ConnectionPtr connection)
{
    const bool open = connection && g_dbus_connection_is_closed(connection.get()) == 0;
    return open ? std::move(connection) : nullptr;
}

ConnectionPtr GetOwn()
{
    auto& own = TheOwnConnection();
    const std::lock_guard<std::mutex> lock(own.mutex);
    return IfOpen(ConnectionPtr(static_cast<GDBusConnection*>(g_weak_ref_get(&own.connection))));
}

ConnectionPtr OpenOwn(GCancellable* cancellable, GError** error)
{
    const std::unique_ptr<gchar, Releaser<g_free>> address(
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, cancellable, error));
    if (!address) {
        return nullptr;
    }
    constexpr auto flags =
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    ConnectionPtr connection(
        g_dbus_connection_new_for_address_sync(address.get(), flags, nullptr, cancellable, error));
    if (connection) {
        auto& own = TheOwnConnection();
        const std::lock_guard<std::mutex> lock(own.mutex);
        // Another create may have been faster; then its connection is the one, and this one goes.
        ConnectionPtr other =
            IfOpen(ConnectionPtr(static_cast<GDBusConnection*>(g_weak_ref_get(&own.connection))));
        if (other) {
            std::swap(connection, other);
        } else {
            g_weak_ref_set(&own.connection, connection.get());
        }
    }
    return connection;
}

void OnLost(GDBusConnection* connection, gboolean /*peerVanished*/, GError* error, void* /*data*/)
{
    VELMORA_LOGE("bus connection %p is lost: %s", static_cast<void*>(connection),
                 error != nullptr ? error->message : "closed by this process");
}

// What a connection needs once, however many servers use it.
void MakeReady(GDBusConnection* connection)
{
    constexpr char ready[] = "sennet-ready";
    static std::mutex mutex; // two creates at once
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    const std::lock_guard<std::mutex> lock(mutex);
    auto* const object = G_OBJECT(connection);
    if (g_object_get_data(object, ready) == nullptr) {
        g_object_set_data(object, ready, connection);
        g_signal_connect(connection, "closed", G_CALLBACK(&OnLost), nullptr);
        AddIncomingFilter(connection);
    }
}

// Null if there is no thread or no memory for it.
std::shared_ptr<Ending> StartFlush(GDBusConnection* connection)
{
    // g_dbus_connection_flush_sync ignores its cancellable. The thread is not one of those that all
    // of GIO's tasks share, as with g_dbus_connection_flush: they are few, and a bus that stands
    // still would keep it. That one's end is told to a main context besides, which nobody may run.
    try {
        auto ending = std::make_shared<Ending>();
        ConnectionPtr held(static_cast<GDBusConnection*>(g_object_ref(connection)));
        std::thread([ending, held = std::move(held)] {
            g_dbus_connection_flush_sync(held.get(), nullptr, nullptr);
            ending->Tell();
        }).detach();
        return ending;
    } catch (const std::exception&) {
        return nullptr;
    }
}

} // namespace

ConnectionPtr ConnectToBus()
{
    ConnectionPtr connection = GetOwn();
    GError* raw = nullptr;
    if (!connection) {
        const TimeLimit limit(kConnectLimit);
        connection.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, limit.Get(), &raw));
        // GDBus hands out the one that the bus has dropped until its last holder, perhaps another
        // part of the program, has let go of it.
        if (connection && g_dbus_connection_is_closed(connection.get()) != 0) {
            connection = OpenOwn(limit.Get(), &raw);
        }
    }
    const ErrorPtr error(raw);
    if (!connection) {
        VELMORA_LOGE("get dbus connection fail!");
        if (error) {
            VELMORA_LOGE("(%s %d)", error->message, error->code);
        }
        return nullptr;
    }
    MakeReady(connection.get());
    return connection;
}

bool FlushWithinLimit(GDBusConnection* connection)
{
    const auto ending = StartFlush(connection);
    if (ending != nullptr && ending->AwaitFor(kFlushLimit)) {
        return true;
    }
    VELMORA_LOGE("the bus takes nothing: something that was sent is left unsent");
    return false;
}

void HoldUntilDispatched(GDBusConnection* connection, GMainContext* context)
{
    const auto letGo = [](void* data) {
        const ConnectionPtr held(static_cast<GDBusConnection*>(data));
        StartFlush(held.get()); // which keeps it meanwhile
    };
    GSource* const source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT); // GDBus's own, so that it comes behind
    g_source_set_callback(
        source, [](void*) -> gboolean { return G_SOURCE_REMOVE; }, g_object_ref(connection), letGo);
    g_source_attach(source, context);
    g_source_unref(source);
}

} // namespace Velmora::Internal
