// SPDX-License-Identifier: MIT
#include "TCReconnect.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "GLibPtr.h"
#include "TCLog.h"
#include "extra/BusUse.h"
#include "extra/OnContext.h"

namespace Velmora {

using namespace Internal;

namespace {

constexpr unsigned int kFirstPause = 100;     // milliseconds
constexpr unsigned int kLongestPause = 30000; // milliseconds

struct KeptSubscription
{
    std::optional<std::string> from;
    std::string signal;
    TCSignalCallback callback;
    void* userData;

    bool Subscribe(TCServer& server) const
    {
        return server.SubscribeSignal(from.has_value() ? from->c_str() : nullptr, signal.c_str(),
                                      callback, userData);
    }
};

struct Guarded
{
    TCServer* server;
    std::vector<KeptSubscription> subscriptions;
    std::unique_ptr<BusUse> use; // tells the loss of the server's connection
};

std::optional<std::string> Optional(const char* text)
{
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

} // namespace

// Everything is used on the thread of the context. What is posted there holds a weak reference.
struct __attribute__((visibility("hidden"))) TCReconnect::Impl
    : std::enable_shared_from_this<TCReconnect::Impl>
{
    const std::shared_ptr<GMainContext> context{g_main_context_ref_thread_default(),
                                                g_main_context_unref};
    unsigned int opened = 0; // counts the closes: a loss of an earlier connection is old
    std::vector<Guarded> servers;
    Callback lost, back;
    GSource* timer = nullptr; // one reference; of the next attempt
    unsigned int pause = kFirstPause;

    ~Impl() { StopTimer(); }

    Guarded* Find(const TCServer& server)
    {
        const auto found = std::find_if(servers.begin(), servers.end(), [&](const Guarded& entry) {
            return entry.server == &server;
        });
        return found != servers.end() ? &*found : nullptr;
    }

    bool Watch(Guarded& entry)
    {
        entry.use = BusUse::Begin(*entry.server, [weak = weak_from_this(), where = context,
                                                  watched = opened](GDBusConnection* connection) {
            if (g_dbus_connection_is_closed(connection) == 0) {
                return; // the server was closed
            }
            PostToContext(where.get(), [weak, watched] {
                if (const auto self = weak.lock()) {
                    self->OnLost(watched);
                }
            });
        });
        return entry.use != nullptr;
    }

    // Several servers tell the same loss: the first one closes all.
    void OnLost(unsigned int watched)
    {
        if (watched != opened) {
            return;
        }
        CloseAll();
        pause = kFirstPause;
        StartTimer();
        Call(lost);
    }

    void CloseAll()
    {
        ++opened;
        for (auto entry = servers.rbegin(); entry != servers.rend(); ++entry) {
            entry->use.reset();
            entry->server->CloseDBusServer();
            entry->server->AwaitHooks();
        }
    }

    bool OpenAll()
    {
        return std::all_of(servers.begin(), servers.end(), [this](Guarded& entry) {
            if (!entry.server->CreateDBusServer() || !Watch(entry)) {
                return false;
            }
            const auto& kept = entry.subscriptions;
            return std::all_of(kept.begin(), kept.end(), [&](const KeptSubscription& one) {
                return one.Subscribe(*entry.server);
            });
        });
    }

    void TryToOpen()
    {
        StopTimer();
        if (!OpenAll()) {
            CloseAll();
            pause = std::min(pause * 2, kLongestPause);
            StartTimer();
            return;
        }
        pause = kFirstPause;
        Call(back);
    }

    // The callback may destroy the guard, and replace itself.
    void Call(const Callback& callback)
    {
        const std::shared_ptr<Impl> held = shared_from_this();
        if (const Callback copy = callback; copy) {
            copy();
        }
    }

    void StartTimer()
    {
        using Weak = std::weak_ptr<Impl>;
        StopTimer();
        const auto more = g_random_int_range(0, static_cast<gint32>(pause / 4) + 1);
        timer = g_timeout_source_new(pause + static_cast<unsigned int>(more));
        g_source_set_callback(
            timer,
            [](void* weak) -> gboolean {
                if (const auto self = static_cast<Weak*>(weak)->lock()) {
                    self->TryToOpen();
                }
                return G_SOURCE_REMOVE;
            },
            new Weak(weak_from_this()), [](void* weak) { delete static_cast<Weak*>(weak); });
        g_source_attach(timer, context.get());
    }
    void StopTimer()
    {
        if (timer != nullptr) {
            DestroySource(std::exchange(timer, nullptr));
        }
    }
};

TCReconnect::TCReconnect() : m_Impl(std::make_shared<Impl>()) {}

// A callback that destroys the guard holds the rest until it returns.
TCReconnect::~TCReconnect()
{
    m_Impl->StopTimer();
    m_Impl->servers.clear();
}

void TCReconnect::SetCallbacks(Callback lost, Callback back)
{
    m_Impl->lost = std::move(lost);
    m_Impl->back = std::move(back);
}

bool TCReconnect::Add(TCServer& server)
{
    if (m_Impl->Find(server) != nullptr) {
        VELMORA_LOGE("the server was added before");
        return false;
    }
    Guarded entry{&server, {}, nullptr};
    if (!m_Impl->Watch(entry)) {
        return false;
    }
    m_Impl->servers.push_back(std::move(entry));
    return true;
}

void TCReconnect::Remove(TCServer& server)
{
    if (Guarded* const entry = m_Impl->Find(server); entry != nullptr) {
        m_Impl->servers.erase(m_Impl->servers.begin() + (entry - m_Impl->servers.data()));
    }
}

bool TCReconnect::Subscribe(TCServer& server, const char* from, const char* signal,
                            TCSignalCallback callback, void* userData)
{
    Guarded* const entry = m_Impl->Find(server);
    if (entry == nullptr || signal == nullptr) {
        VELMORA_LOGE("%s", signal == nullptr ? "signal is NULL" : "the server was not added");
        return false;
    }
    const KeptSubscription subscription{Optional(from), signal, callback, userData};
    const bool subscribed = subscription.Subscribe(server);
    if (subscribed) {
        entry->subscriptions.push_back(subscription);
    }
    return subscribed;
}

} // namespace Velmora
