// SPDX-License-Identifier: MIT
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>

#include "BusHandle.h"
#include "GLibPtr.h"
#include "Locks.h"
#include "SendGate.h"
#include "ServerLife.h"
#include "TCLog.h"
#include "TCNameWatch.h"
#include "TCScope.h"
#include "extra/BusUse.h"
#include "extra/OwnerTracker.h"

namespace Velmora {

using namespace Internal;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLook{20}; // between looks at what GDBus was told
constexpr unsigned int kWarnAfter = 1000;      // milliseconds

// The owner of the name, as the library's thread learns it.
struct Owner
{
    Mutex mutex;
    std::condition_variable changed;
    std::optional<std::string> name SENNET_THREAD_SAFETY(guarded_by(mutex));
    bool ended SENNET_THREAD_SAFETY(guarded_by(mutex)) = false;

    void Set(const std::string& owner)
    {
        const Lock lock(mutex);
        name = owner;
        changed.notify_all();
    }
    void End()
    {
        const Lock lock(mutex);
        ended = true;
        changed.notify_all();
    }
    std::pair<std::optional<std::string>, bool> Look()
    {
        const Lock lock(mutex);
        return {name, ended};
    }
    void AwaitChange(Clock::time_point end)
    {
        Lock lock(mutex);
        lock.WaitUntil(changed, end);
    }
};

// The context on which the answer to the request for the name is handled, if this thread may run
// it.
class OwnedContext
{
public:
    explicit OwnedContext(ContextPtr context) : m_Context(std::move(context))
    {
        if (m_Context && g_main_context_acquire(m_Context.get()) == 0) {
            m_Context.reset();
        }
    }
    ~OwnedContext()
    {
        if (m_Context) {
            g_main_context_release(m_Context.get());
        }
    }
    OwnedContext(const OwnedContext&) = delete;
    OwnedContext& operator=(const OwnedContext&) = delete;

    // Until nothing is ready, or it is time for the next look.
    void Iterate() const
    {
        const auto end = Clock::now() + kLook;
        while (m_Context && Clock::now() < end &&
               g_main_context_iteration(m_Context.get(), FALSE) != 0) {
        }
    }

private:
    ContextPtr m_Context;
};

// Process number of a connection, for people.
std::string ProcessOf(GDBusConnection* connection, const std::string& uniqueName)
{
    const VariantPtr answer(g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetConnectionUnixProcessID", g_variant_new("(s)", uniqueName.c_str()),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, nullptr));
    guint32 process = 0;
    if (answer) {
        g_variant_get(answer.get(), "(u)", &process);
    }
    return answer ? ", process " + std::to_string(process) : "";
}

bool Fail(const std::string& name, const std::string& reason, std::string* why)
{
    VELMORA_LOGE("%s is not granted: %s", name.c_str(), reason.c_str());
    if (why != nullptr) {
        *why = reason;
    }
    return false;
}

// Why the bus has answered the request with a loss.
std::string ReasonOfLoss(GDBusConnection* connection, const std::string& owner)
{
    return owner.empty() ? "the bus refuses it"
                         : "it is taken by " + owner + ProcessOf(connection, owner);
}

// Returns the reason why the name is not granted; empty if it is.
std::string AwaitOwn(const ServerLife& life, GDBusConnection* connection, Owner& owner,
                     const OwnedContext& context, int milliseconds)
{
    const std::string own = g_dbus_connection_get_unique_name(connection);
    const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        context.Iterate();
        const bool lost = ServerLives::IsNameLost(life);
        const auto [known, ended] = owner.Look();
        if (known == own) {
            return "";
        }
        if (ended) {
            return g_dbus_connection_is_closed(connection) != 0 ? "the bus is lost"
                                                                : "the server is closed";
        }
        if (lost && known.has_value()) {
            return ReasonOfLoss(connection, *known);
        }
        if (Clock::now() >= end) {
            const bool taken = known.has_value() && !known->empty();
            return "the time is over" + (taken ? ", and " + *known + " has it" : "");
        }
        owner.AwaitChange(std::min(end, Clock::now() + kLook));
    }
}

gboolean WarnNow(void* handle)
{
    const ServerLife& life = BusHandle::LifeOf(handle);
    if (const ServerPin pin(life); pin && !ServerLives::IsNamed(life)) {
        VELMORA_LOGW("the bus has not granted the name %s: %s",
                     TCServer::Private::BusName(*pin).c_str(),
                     ServerLives::IsNameLost(life) ? "refused, or taken by another program"
                                                   : "no answer yet");
    }
    return G_SOURCE_REMOVE;
}

} // namespace

bool AwaitName(TCServer& server, int milliseconds, std::string* why)
{
    const std::string name = TCServer::Private::BusName(server);
    if (TCServer::Private::IsProxy(server)) {
        return Fail(name, "a proxy has no name", why);
    }
    const auto owner = std::make_shared<Owner>();
    const auto tracker = std::make_shared<OwnerTracker>(
        name, [owner](const std::string&, const std::string& now) { owner->Set(now); });
    ConnectionPtr connection;
    {
        const SendGate gate(server);
        connection = gate ? TCServer::Private::OpenConnection(server) : nullptr;
    }
    const auto use = BusUse::Begin(server, [owner, tracker](GDBusConnection* ended) {
        tracker->Stop(ended);
        owner->End();
    });
    if (!connection || use == nullptr) {
        return Fail(name, "the server is not open", why);
    }
    use->Run([tracker](GDBusConnection* used) { tracker->Start(used); });
    const OwnedContext context(ServerLives::ContextOf(&server));
    const std::string reason =
        AwaitOwn(ServerLives::Of(&server), connection.get(), *owner, context, milliseconds);
    use->Run([tracker](GDBusConnection* used) { tracker->Stop(used); });
    return reason.empty() || Fail(name, reason, why);
}

// At a low priority: an answer of the bus that waits on the same context is handled before. A
// context that nobody runs says nothing, since its name may be granted.
void Internal::WarnIfUnnamed(TCServer& server)
{
    if (TCServer::Private::IsProxy(server)) {
        return;
    }
    const ContextPtr context(g_main_context_ref_thread_default());
    GSource* const source = g_timeout_source_new(kWarnAfter);
    g_source_set_priority(source, G_PRIORITY_DEFAULT_IDLE);
    g_source_set_callback(source, &WarnNow,
                          BusHandle::Make<BusHandle>(ServerLives::Of(&server)).release(),
                          &FreeHandle);
    g_source_attach(source, context.get());
    g_source_unref(source);
}

} // namespace Velmora
