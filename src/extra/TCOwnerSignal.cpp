// SPDX-License-Identifier: MIT
#include "TCOwnerSignal.h"

#include <new>
#include <utility>
#include <vector>

#include "BusBody.h"
#include "BusFilter.h"
#include "BusNames.h"
#include "InboundCall.h"
#include "TCLog.h"
#include "extra/BusUse.h"
#include "extra/CallbackGate.h"
#include "extra/Delivery.h"
#include "extra/OwnerTracker.h"

namespace Velmora {

using namespace Internal;

namespace {

// Until the bus has told the owner.
constexpr std::size_t kMaxEarly = 128;

using SharedVariant = std::shared_ptr<GVariant>;
using SharedConnection = std::shared_ptr<GDBusConnection>;

// The client's side.
struct Receiver
{
    Receiver(std::string itsSignal, TCOwnerSignal::Callback itsCallback, Delivery itsPlace)
        : signal(std::move(itsSignal)), callback(std::move(itsCallback)), where(std::move(itsPlace))
    {}

    const std::string signal;
    GatedCallback<const char*, const char*, const TCMessage&> callback;
    const Delivery where;

    void Deliver(GDBusConnection* connection, const std::string& sender, GVariant* parameters)
    {
        ParsedBody body;
        TCMessage message;
        try {
            body = ParseBody(parameters);
            body.CopyInto(message);
        } catch (const std::bad_alloc&) {
            VELMORA_LOGE("out of memory: a signal is dropped");
            return;
        }
        const InboundCall call(connection, sender, false);
        callback.Run(body.from, signal.c_str(), message);
    }
};

// The side of the bus; on the library's thread alone.
class Subscription : public std::enable_shared_from_this<Subscription>
{
public:
    Subscription(std::string busName, std::shared_ptr<Receiver> receiver)
        : m_BusName(std::move(busName)), m_Receiver(std::move(receiver)),
          m_Plain(m_BusName, m_Receiver->signal)
    {}

    void Start(GDBusConnection* connection)
    {
        m_Tracker = std::make_shared<OwnerTracker>(
            m_BusName, [weak = weak_from_this()](const std::string& former, const std::string&) {
                if (const auto self = weak.lock()) {
                    self->PassEarly(former);
                }
            });
        m_Tracker->Start(connection);
        // What a peer sends to this connection alone passes every rule, and GDBus hands it to every
        // subscription: so each sender is checked.
        m_Id = g_dbus_connection_signal_subscribe(
            connection, nullptr, m_BusName.c_str(), m_Receiver->signal.c_str(), nullptr, nullptr,
            G_DBUS_SIGNAL_FLAGS_NO_MATCH_RULE, &OnSignal, new Self(shared_from_this()),
            [](void* self) { delete static_cast<Self*>(self); });
        SendRule(connection, "AddMatch"); // for what the owner broadcasts
    }
    void Stop(GDBusConnection* connection)
    {
        if (m_Tracker != nullptr) {
            m_Tracker->Stop(connection);
            g_dbus_connection_signal_unsubscribe(connection, std::exchange(m_Id, 0));
            SendRule(connection, "RemoveMatch");
            m_Tracker.reset();
        }
    }

private:
    using Self = std::shared_ptr<Subscription>;

    void SendRule(GDBusConnection* connection, const char* method) const
    {
        const std::string rule = "type='signal',sender='" + m_BusName + "',interface='" +
                                 m_BusName + "',member='" + m_Receiver->signal + "'";
        g_dbus_connection_call(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", method, g_variant_new("(s)", rule.c_str()),
                               nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
    }

    static void OnSignal(GDBusConnection* connection, const char* sender, const char* /*path*/,
                         const char* /*interfaceName*/, const char* /*signalName*/,
                         GVariant* parameters, void* data)
    {
        const Self self = *static_cast<Self*>(data);
        if (self->m_Tracker == nullptr || sender == nullptr) {
            return;
        }
        Signal signal{sender,
                      {static_cast<GDBusConnection*>(g_object_ref(connection)), g_object_unref},
                      {g_variant_ref(parameters), g_variant_unref}};
        if (self->m_Tracker->Owner().has_value()) {
            self->Pass(signal, *self->m_Tracker->Owner());
        } else if (self->m_Early.size() < kMaxEarly) {
            self->m_Early.push_back(std::move(signal));
        }
    }

    struct Signal
    {
        std::string sender;
        SharedConnection connection;
        SharedVariant parameters;
    };

    // The first owner is known: the signals before it were its own, or forged.
    void PassEarly(const std::string& former)
    {
        const std::string& owner = former.empty() ? m_Tracker->Owner().value_or("") : former;
        for (const Signal& signal : std::exchange(m_Early, {})) {
            Pass(signal, owner);
        }
    }

    void Pass(const Signal& signal, const std::string& owner) const
    {
        if (signal.sender == owner) {
            m_Receiver->where.Post([receiver = m_Receiver, signal] {
                receiver->Deliver(signal.connection.get(), signal.sender, signal.parameters.get());
            });
        }
    }

    const std::string m_BusName;
    const std::shared_ptr<Receiver> m_Receiver;
    const NoDescriptors m_Plain;
    std::shared_ptr<OwnerTracker> m_Tracker; // while subscribed
    unsigned int m_Id = 0;
    std::vector<Signal> m_Early;
};

} // namespace

struct __attribute__((visibility("hidden"))) TCOwnerSignal::Impl
{
    std::shared_ptr<Receiver> receiver;
    std::shared_ptr<Subscription> subscription;
    std::unique_ptr<BusUse> use;
};

TCOwnerSignal::TCOwnerSignal(TCServer& server, const char* from, const char* signal,
                             Callback callback, TCEventIO* queue)
{
    if (from == nullptr || signal == nullptr || !callback) {
        VELMORA_LOGE("%s is NULL",
                     from == nullptr ? "from" : (signal == nullptr ? "signal" : "callback"));
        return;
    }
    std::string busName = TCServer::m_GetDBusName(from);
    if (!IsInterfaceName(busName) || !IsMemberName(signal)) {
        VELMORA_LOGE("cannot subscribe: a name is not legal on D-Bus");
        return;
    }
    auto impl = std::make_unique<Impl>();
    impl->receiver = std::make_shared<Receiver>(signal, std::move(callback),
                                                queue != nullptr ? Delivery::ToQueue(*queue)
                                                                 : Delivery::ToContext(nullptr));
    const auto subscription = std::make_shared<Subscription>(std::move(busName), impl->receiver);
    impl->subscription = subscription;
    impl->use = BusUse::Begin(
        server, [subscription](GDBusConnection* connection) { subscription->Stop(connection); });
    if (impl->use == nullptr) {
        return;
    }
    impl->use->RunAndWait(
        [subscription](GDBusConnection* connection) { subscription->Start(connection); });
    m_Impl = std::move(impl);
}

TCOwnerSignal::~TCOwnerSignal()
{
    if (m_Impl != nullptr) {
        m_Impl->receiver->callback.Close();
        m_Impl->use->Run([subscription = m_Impl->subscription](GDBusConnection* connection) {
            subscription->Stop(connection);
        });
    }
}

std::unique_ptr<TCOwnerSignal> SubscribeOwnerSignal(TCServer& server, const char* from,
                                                    const char* signal,
                                                    TCOwnerSignal::Callback callback,
                                                    TCEventIO* queue)
{
    auto made = std::make_unique<TCOwnerSignal>(server, from, signal, std::move(callback), queue);
    return *made ? std::move(made) : nullptr;
}

} // namespace Velmora
