// SPDX-License-Identifier: MIT
#include "TCNameWatch.h"

#include <optional>
#include <utility>

#include "BusNames.h"
#include "Locks.h"
#include "TCLog.h"
#include "extra/BusUse.h"
#include "extra/CallbackGate.h"
#include "extra/Delivery.h"
#include "extra/OwnerTracker.h"

namespace Velmora {

using namespace Internal;

namespace {

// The newest state, and the report that is on its way.
class Reports : public std::enable_shared_from_this<Reports>
{
public:
    Reports(Delivery where, TCNameWatch::Callback itsCallback)
        : callback(std::move(itsCallback)), m_Where(std::move(where))
    {}

    // On the library's thread.
    void Note(const std::string& owner)
    {
        {
            const Lock lock(m_Mutex);
            m_Owner = owner;
            if (m_OnItsWay) {
                return;
            }
            m_OnItsWay = true;
        }
        // Destroyed with the callable, run or not.
        const std::shared_ptr<Reports> ticket(this, [self = shared_from_this()](Reports* reports) {
            const Lock lock(reports->m_Mutex);
            reports->m_OnItsWay = false;
        });
        m_Where.Post([ticket] { ticket->Deliver(); });
    }

    GatedCallback<const TCNameChange&> callback;

private:
    void Deliver()
    {
        TCNameChange change;
        {
            const Lock lock(m_Mutex);
            m_OnItsWay = false;
            if (m_Reported == m_Owner) {
                return;
            }
            change = {m_Reported.value_or(""), m_Owner};
            m_Reported = m_Owner;
        }
        callback.Run(change);
    }

    const Delivery m_Where;
    Mutex m_Mutex;
    std::string m_Owner SENNET_THREAD_SAFETY(guarded_by(m_Mutex));
    std::optional<std::string> m_Reported SENNET_THREAD_SAFETY(guarded_by(m_Mutex));
    bool m_OnItsWay SENNET_THREAD_SAFETY(guarded_by(m_Mutex)) = false;
};

} // namespace

struct __attribute__((visibility("hidden"))) TCNameWatch::Impl
{
    std::shared_ptr<Reports> reports;
    std::shared_ptr<OwnerTracker> tracker;
    std::unique_ptr<BusUse> use;
};

TCNameWatch::TCNameWatch(TCServer& server, const char* name, Callback callback, TCEventIO* queue)
    : m_Impl(std::make_unique<Impl>())
{
    if (name == nullptr || !callback) {
        VELMORA_LOGE("%s is NULL", name == nullptr ? "name" : "callback");
        return;
    }
    m_Impl->reports = std::make_shared<Reports>(queue != nullptr ? Delivery::ToQueue(*queue)
                                                                 : Delivery::ToContext(nullptr),
                                                std::move(callback));
    std::string busName = TCServer::m_GetDBusName(name);
    if (busName.size() > kMaxName) { // the bus drops the connection that sends a longer one
        VELMORA_LOGE("cannot watch a name: it is not legal on D-Bus");
        return;
    }
    const auto tracker = std::make_shared<OwnerTracker>(
        std::move(busName),
        [reports = m_Impl->reports](const std::string&, const std::string& owner) {
            reports->Note(owner);
        });
    m_Impl->tracker = tracker;
    m_Impl->use =
        BusUse::Begin(server, [tracker](GDBusConnection* connection) { tracker->End(connection); });
    if (m_Impl->use != nullptr) {
        m_Impl->use->Run([tracker](GDBusConnection* connection) { tracker->Start(connection); });
    }
}

TCNameWatch::~TCNameWatch()
{
    if (m_Impl->reports != nullptr) {
        m_Impl->reports->callback.Close();
    }
    if (m_Impl->use != nullptr) {
        m_Impl->use->Run([tracker = m_Impl->tracker](GDBusConnection* connection) {
            tracker->Stop(connection);
        });
    }
}

} // namespace Velmora
