// SPDX-License-Identifier: MIT
#include "extra/LossWatch.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <vector>

#include "GLibPtr.h"
#include "Locks.h"
#include "extra/OnContext.h"

namespace Velmora::Internal {

using Callback = std::function<void()>;
using CancellablePtr = std::unique_ptr<GCancellable, Releaser<g_object_unref>>;

struct LossWatch::State
{
    explicit State(GDBusConnection* watched) : connection(watched), cancellable(g_cancellable_new())
    {}

    GDBusConnection* const connection; // held by the call
    const CancellablePtr cancellable;  // ends the call with the watch
    volatile guint32 serial = 0;       // of the call; written by GDBus before it sends

    Mutex mutex;
    bool lost SENNET_THREAD_SAFETY(guarded_by(mutex)) = false;
    std::map<const void*, Callback> callbacks SENNET_THREAD_SAFETY(guarded_by(mutex));
};

namespace {

using StatePtr = std::shared_ptr<LossWatch::State>;

struct Watches
{
    Mutex mutex;
    std::vector<std::pair<GDBusConnection*, std::weak_ptr<LossWatch>>>
        ofConnection SENNET_THREAD_SAFETY(guarded_by(mutex));
    std::vector<StatePtr> unanswered SENNET_THREAD_SAFETY(guarded_by(mutex));
    std::atomic<bool> expecting{false}; // unanswered has an entry; written under the mutex
};

// Never destroyed: a worker thread may be in the filter when the process ends.
Watches& All()
{
    static auto& all = *new Watches;
    return all;
}

template <typename Predicate>
bool RemoveUnanswered(const Predicate& predicate)
{
    Watches& all = All();
    const Lock lock(all.mutex);
    const auto found = std::find_if(all.unanswered.begin(), all.unanswered.end(), predicate);
    if (found == all.unanswered.end()) {
        return false;
    }
    all.unanswered.erase(found);
    all.expecting = !all.unanswered.empty();
    return true;
}

void NoteLoss(LossWatch::State& state)
{
    std::map<const void*, Callback> callbacks;
    {
        const Lock lock(state.mutex);
        state.lost = true;
        callbacks.swap(state.callbacks);
    }
    for (const auto& [key, callback] : callbacks) {
        callback();
    }
}

void OnEnd(GObject* source, GAsyncResult* result, void* data)
{
    const std::unique_ptr<StatePtr> state(static_cast<StatePtr*>(data));
    GError* raw = nullptr;
    GDBusMessage* const answer = g_dbus_connection_send_message_with_reply_finish(
        reinterpret_cast<GDBusConnection*>(source), result, &raw);
    if (answer != nullptr) {
        g_object_unref(answer);
    }
    const ErrorPtr error(raw);
    RemoveUnanswered([&](const StatePtr& other) { return other == *state; });
    if (!error || g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED) == 0) {
        NoteLoss(**state);
    }
}

// On the library's thread, whose context gets the end of the call.
void Send(const StatePtr& state, GDBusConnection* connection)
{
    {
        Watches& all = All();
        const Lock lock(all.mutex);
        all.unanswered.push_back(state);
        all.expecting = true;
    }
    GDBusMessage* const call = g_dbus_message_new_method_call(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId");
    g_dbus_connection_send_message_with_reply(connection, call, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                              G_MAXINT, &state->serial, state->cancellable.get(),
                                              &OnEnd, new StatePtr(state)); // OnEnd frees it
    g_object_unref(call);
}

} // namespace

std::shared_ptr<LossWatch> LossWatch::Of(GDBusConnection* connection)
{
    Watches& all = All();
    const Lock lock(all.mutex);
    for (auto entry = all.ofConnection.begin(); entry != all.ofConnection.end();) {
        if (auto watch = entry->second.lock(); watch == nullptr) {
            entry = all.ofConnection.erase(entry);
        } else if (entry->first == connection) {
            return watch;
        } else {
            ++entry;
        }
    }
    const auto state = std::make_shared<State>(connection);
    // The callable may outlive this: it holds the connection until the call does.
    const std::shared_ptr<GDBusConnection> held(
        static_cast<GDBusConnection*>(g_object_ref(connection)), g_object_unref);
    if (!LibraryThread::Run([state, held] { Send(state, held.get()); })) {
        return nullptr;
    }
    auto watch = std::make_shared<LossWatch>(state);
    all.ofConnection.emplace_back(connection, watch);
    return watch;
}

LossWatch::~LossWatch()
{
    std::map<const void*, Callback> dropped; // destroyed after the lock
    {
        const Lock lock(m_State->mutex);
        dropped.swap(m_State->callbacks);
    }
    g_cancellable_cancel(m_State->cancellable.get());
}

void LossWatch::OnLost(const void* key, Callback callback)
{
    {
        const Lock lock(m_State->mutex);
        if (!m_State->lost) {
            m_State->callbacks.emplace(key, std::move(callback));
            return;
        }
    }
    LibraryThread::Run(std::move(callback));
}

void LossWatch::Forget(const void* key)
{
    Callback dropped; // destroyed after the lock
    const Lock lock(m_State->mutex);
    const auto found = m_State->callbacks.find(key);
    if (found != m_State->callbacks.end()) {
        dropped = std::move(found->second);
        m_State->callbacks.erase(found);
    }
}

bool LossWatch::TakesAnswer(GDBusConnection* connection, GDBusMessage* message)
{
    if (!All().expecting) {
        return false;
    }
    const guint32 answered = g_dbus_message_get_reply_serial(message);
    return answered != 0 && RemoveUnanswered([&](const StatePtr& state) {
               return state->connection == connection && state->serial == answered;
           });
}

} // namespace Velmora::Internal
