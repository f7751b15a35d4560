// SPDX-License-Identifier: MIT
#include "BusConnection.h"

#include <chrono>
#include <exception>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "BusFilter.h"
#include "Locks.h"
#include "TCLog.h"

namespace Velmora::Internal {

namespace {

// For the handshake. The greeting that follows has GDBus's own limit of 25 seconds.
constexpr std::chrono::seconds kConnectLimit{25};
constexpr std::chrono::seconds kFlushLimit{5};

// Happens once, on one thread, while others wait for it.
class OneTimeEvent
{
public:
    void Signal()
    {
        const Lock lock(m_Mutex);
        m_Happened = true;
        m_Signalled.notify_all();
    }
    // Returns false if it has not happened within the limit.
    bool AwaitFor(std::chrono::seconds limit)
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        Lock lock(m_Mutex);
        while (!m_Happened && std::chrono::steady_clock::now() < end) {
            lock.WaitUntil(m_Signalled, end);
        }
        return m_Happened;
    }

private:
    Mutex m_Mutex;
    std::condition_variable m_Signalled;
    bool m_Happened SENNET_THREAD_SAFETY(guarded_by(m_Mutex)) = false;
};

// Cancels the operation of its scope, which uses the cancellable, if it takes too long.
class TimeLimit
{
public:
    explicit TimeLimit(std::chrono::seconds limit) : m_Cancellable(g_cancellable_new())
    {
        try {
            m_Thread = std::thread([this, limit] { Watch(limit); });
        } catch (const std::system_error&) {
            // Without a limit then: GDBus needs a thread to connect, and so fails at once.
        }
    }
    ~TimeLimit()
    {
        m_ScopeLeft.Signal();
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
    OneTimeEvent m_ScopeLeft;
    std::thread m_Thread;
};

// The library's own connection, while one of its servers holds it. Never destroyed: a server of
// static storage may be the last one.
struct OwnConnection
{
    Mutex mutex;
    GWeakRef connection SENNET_THREAD_SAFETY(guarded_by(mutex)) = {};
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
    const Lock lock(own.mutex);
    return IfOpen(ConnectionPtr(static_cast<GDBusConnection*>(g_weak_ref_get(&own.connection))));
}

// Makes the connection the library's own. If another create was faster, returns that one's.
ConnectionPtr ShareAsOwn(ConnectionPtr connection)
{
    auto& own = TheOwnConnection();
    const Lock lock(own.mutex); // released before the argument, which may be the last reference
    ConnectionPtr other =
        IfOpen(ConnectionPtr(static_cast<GDBusConnection*>(g_weak_ref_get(&own.connection))));
    if (other) {
        return other;
    }
    g_weak_ref_set(&own.connection, connection.get());
    return connection;
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
    return connection ? ShareAsOwn(std::move(connection)) : nullptr;
}

void OnLost(GDBusConnection* connection, gboolean /*peerVanished*/, GError* error, void* /*data*/)
{
    VELMORA_LOGE("bus connection %p is lost: %s", static_cast<void*>(connection),
                 error != nullptr ? error->message : "closed by this process");
}

// Does what a connection needs once, however many servers use it.
void MakeReady(GDBusConnection* connection)
{
    constexpr char ready[] = "sennet-ready";
    static Mutex mutex; // for two creates at once
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    const Lock lock(mutex);
    auto* const object = G_OBJECT(connection);
    if (g_object_get_data(object, ready) == nullptr) {
        g_object_set_data(object, ready, connection);
        g_signal_connect(connection, "closed", G_CALLBACK(&OnLost), nullptr);
        AddBusFilter(connection);
    }
}

// Null if there is no thread or no memory for it.
std::shared_ptr<OneTimeEvent> StartFlush(GDBusConnection* connection)
{
    // In a thread of its own, since g_dbus_connection_flush_sync ignores its cancellable.
    // g_dbus_connection_flush would not do: it takes one of the few threads that all of GIO's tasks
    // share, for as long as the bus is stuck, and reports to a main context that may never run.
    try {
        auto flushed = std::make_shared<OneTimeEvent>();
        ConnectionPtr held(static_cast<GDBusConnection*>(g_object_ref(connection)));
        std::thread([flushed, held = std::move(held)] {
            g_dbus_connection_flush_sync(held.get(), nullptr, nullptr);
            flushed->Signal();
        }).detach();
        return flushed;
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
        // A connection that the bus has dropped is handed out by GDBus until its last holder,
        // perhaps another part of the program, releases it.
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
    const auto flushed = StartFlush(connection);
    if (flushed != nullptr && flushed->AwaitFor(kFlushLimit)) {
        return true;
    }
    VELMORA_LOGE("the bus takes nothing: something that was sent is left unsent");
    return false;
}

void HoldUntilDispatched(GDBusConnection* connection, GMainContext* context)
{
    const auto letGo = [](void* data) {
        const ConnectionPtr held(static_cast<GDBusConnection*>(data));
        StartFlush(held.get()); // keeps it meanwhile
    };
    GSource* const source = g_idle_source_new();
    g_source_set_priority(source,
                          G_PRIORITY_DEFAULT); // as GDBus's own, so that it runs after those
    g_source_set_callback(
        source, [](void*) -> gboolean { return G_SOURCE_REMOVE; }, g_object_ref(connection), letGo);
    g_source_attach(source, context);
    g_source_unref(source);
}

} // namespace Velmora::Internal
