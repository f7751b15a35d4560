// SPDX-License-Identifier: MIT
#include "TCWatchdog.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "Crossing.h"
#include "GLibPtr.h"
#include "QueueRef.h"
#include "TCLog.h"
#include "TCServerPrivate.h"
#include "extra/BusUse.h"
#include "extra/CallbackGate.h"
#include "extra/Notifier.h"
#include "extra/OnContext.h"
#include "extra/OwnerTracker.h"

namespace Velmora {

using namespace Internal;

namespace {

constexpr long long kTicks = 4;         // in the interval of the service manager
constexpr long long kReadyTick = 50000; // microseconds; without a watchdog, until all have answered

// What has to answer: a queue, or the dispatch loop.
class Target
{
public:
    explicit Target(TCEventIO& queue) : m_Queue(queue) {}
    explicit Target(GMainContext* context)
        : m_Context(g_main_context_ref(context), g_main_context_unref)
    {}

    bool HasAnswered() const
    {
        return m_Answer->answered || (m_Context == nullptr && !m_Queue.IsReady());
    }

    void StartRound()
    {
        m_Answer->answered = false;
        Ping();
    }

    // Unless a ping is on its way. One that the queue has dropped, or could not take, is repeated.
    void Ping()
    {
        if (m_Answer->answered || m_Answer->onItsWay.exchange(true)) {
            return;
        }
        const std::shared_ptr<Answer> ticket(
            m_Answer.get(), [answer = m_Answer](Answer*) { answer->onItsWay = false; });
        std::function<void()> ping = [ticket] { ticket->answered = true; };
        if (m_Context != nullptr) {
            PostToContext(m_Context.get(), std::move(ping));
        } else {
            // Urgent, since a long queue that moves is alive. If this fails, the next tick tries
            // again.
            static_cast<void>(m_Queue.TryPost(ping, true));
        }
    }

private:
    struct Answer
    {
        std::atomic<bool> answered{false};
        std::atomic<bool> onItsWay{false};
    };

    QueueRef m_Queue;
    std::shared_ptr<GMainContext> m_Context; // null for a queue
    std::shared_ptr<Answer> m_Answer = std::make_shared<Answer>();
};

// Lives on the library's thread, apart from the beginning and the end.
class Watch
{
public:
    Watch(const std::vector<TCEventIO*>& queues, bool readyWithAll) : m_ReadyWithAll(readyWithAll)
    {
        for (TCEventIO* const queue : queues) {
            if (queue != nullptr) {
                m_Targets.emplace_back(*queue);
            }
        }
        const ContextPtr context(g_main_context_ref_thread_default());
        m_Targets.emplace_back(context.get());
    }

    long long Period() const
    {
        const long long interval = notifier.WatchdogInterval();
        return interval > 0 ? std::max(interval / kTicks, 1000LL)
                            : (m_ReadyWithAll ? kReadyTick : 0);
    }

    void StartRound()
    {
        for (Target& target : m_Targets) {
            target.StartRound();
        }
    }

    // Returns whether the next tick is wanted.
    bool Tick()
    {
        if (!std::all_of(m_Targets.begin(), m_Targets.end(),
                         [](const Target& target) { return target.HasAnswered(); })) {
            for (Target& target : m_Targets) {
                target.Ping();
            }
            return true;
        }
        if (m_ReadyWithAll) {
            NoteReady();
        }
        if (notifier.WatchdogInterval() == 0) {
            return false;
        }
        notifier.Send("WATCHDOG=1");
        StartRound();
        return true;
    }

    void NoteReady()
    {
        if (!std::exchange(m_Ready, true)) {
            notifier.Send("READY=1");
        }
    }

    const Notifier notifier;
    CallbackGate gate; // closed when nothing may be sent any more

private:
    const bool m_ReadyWithAll;
    bool m_Ready = false;
    std::vector<Target> m_Targets;
};

using WatchPtr = std::shared_ptr<Watch>;

struct Ticks
{
    WatchPtr watch;
    Crossing crossing;
};

gboolean OnTick(void* data)
{
    auto* const ticks = static_cast<Ticks*>(data);
    ticks->crossing.Arrive();
    const WatchPtr watch = ticks->watch;
    bool goesOn = false;
    watch->gate.Run([&] { goesOn = watch->Tick(); });
    return goesOn ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

// One reference to the running timer, or null.
GSource* StartTicks(const WatchPtr& watch)
{
    GMainContext* const context = watch->Period() > 0 ? LibraryThread::Context() : nullptr;
    if (context == nullptr) {
        return nullptr;
    }
    watch->StartRound();
    GSource* const timer = g_timeout_source_new(static_cast<guint>(watch->Period() / 1000));
    auto ticks = std::make_unique<Ticks>();
    ticks->watch = watch;
    ticks->crossing.Leave();
    g_source_set_callback(timer, &OnTick, ticks.release(),
                          [](void* data) { delete static_cast<Ticks*>(data); });
    g_source_attach(timer, context);
    return timer;
}

} // namespace

struct __attribute__((visibility("hidden"))) TCWatchdog::Impl
{
    Impl(const std::vector<TCEventIO*>& queues, bool readyWithAll)
        : watch(std::make_shared<Watch>(queues, readyWithAll)), timer(StartTicks(watch))
    {}
    ~Impl()
    {
        if (timer != nullptr) {
            DestroySource(timer);
        }
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    const WatchPtr watch;
    GSource* const timer; // one reference
    std::shared_ptr<OwnerTracker> tracker;
    std::unique_ptr<BusUse> use; // until the name is granted
};

TCWatchdog::TCWatchdog(const std::vector<TCEventIO*>& queues)
    : m_Impl(std::make_unique<Impl>(queues, true))
{}

TCWatchdog::TCWatchdog(TCServer& server, const std::vector<TCEventIO*>& queues)
    : m_Impl(std::make_unique<Impl>(queues, TCServer::Private::IsProxy(server)))
{
    if (TCServer::Private::IsProxy(server)) {
        return;
    }
    const auto own = std::make_shared<std::string>(); // used on the library's thread
    const auto tracker = std::make_shared<OwnerTracker>(
        TCServer::Private::BusName(server),
        [watch = m_Impl->watch, own](const std::string&, const std::string& owner) {
            if (owner == *own) {
                watch->gate.Run([&] { watch->NoteReady(); });
            }
        });
    m_Impl->tracker = tracker;
    m_Impl->use = BusUse::Begin(
        server, [tracker](GDBusConnection* connection) { tracker->Stop(connection); });
    if (m_Impl->use != nullptr) {
        m_Impl->use->Run([tracker, own](GDBusConnection* connection) {
            *own = g_dbus_connection_get_unique_name(connection);
            tracker->Start(connection);
        });
    }
}

TCWatchdog::~TCWatchdog()
{
    if (m_Impl->use != nullptr) {
        m_Impl->use->Run([tracker = m_Impl->tracker](GDBusConnection* connection) {
            tracker->Stop(connection);
        });
    }
    m_Impl->watch->gate.Close();
    m_Impl->watch->notifier.Send("STOPPING=1");
}

bool TCWatchdog::SetStatus(const std::string& text)
{
    if (g_utf8_validate_len(text.data(), text.size(), nullptr) == 0 ||
        text.find('\n') != std::string::npos) {
        VELMORA_LOGE("a status must be one line of UTF-8");
        return false;
    }
    m_Impl->watch->notifier.Send("STATUS=" + text);
    return true;
}

} // namespace Velmora
