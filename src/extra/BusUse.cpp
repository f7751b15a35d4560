// SPDX-License-Identifier: MIT
#include "extra/BusUse.h"

#include <atomic>
#include <future>
#include <map>
#include <utility>
#include <vector>

#include "GLibPtr.h"
#include "Locks.h"
#include "SendGate.h"
#include "ServerLife.h"
#include "extra/LossWatch.h"
#include "extra/OnContext.h"

namespace Velmora::Internal {

using SharedConnection = std::shared_ptr<GDBusConnection>;

struct BusUse::State
{
    Mutex mutex;
    SharedConnection connection SENNET_THREAD_SAFETY(guarded_by(mutex)); // null once ended
    std::shared_ptr<LossWatch> loss SENNET_THREAD_SAFETY(guarded_by(mutex));
    Function onEnd SENNET_THREAD_SAFETY(guarded_by(mutex));

    // Posts under the lock: nothing may be posted behind the end. Returns whether it was.
    bool Post(Function function)
    {
        const Lock lock(mutex);
        return connection != nullptr &&
               LibraryThread::Run(
                   [with = connection, function = std::move(function)] { function(with.get()); });
    }

    SharedConnection Connection()
    {
        const Lock lock(mutex);
        return connection;
    }

    void End(bool tell)
    {
        std::shared_ptr<LossWatch> unwatched; // these are released after the lock
        SharedConnection released;
        Function dropped;
        const Lock lock(mutex);
        unwatched = std::move(loss);
        if (unwatched != nullptr) {
            unwatched->Forget(this);
        }
        released = std::exchange(connection, nullptr);
        dropped = std::exchange(onEnd, nullptr);
        if (tell && dropped) {
            LibraryThread::Run(
                [with = released, function = std::move(dropped)] { function(with.get()); });
        }
    }
};

namespace {

using StatePtr = std::shared_ptr<BusUse::State>;

struct Uses
{
    Mutex mutex;
    std::multimap<const ServerState*, std::pair<std::shared_ptr<ServerState>, StatePtr>>
        ofServer SENNET_THREAD_SAFETY(guarded_by(mutex));
    std::atomic<std::size_t> count{0}; // written under the mutex
};

// Never destroyed: a server of static storage may be the last one.
Uses& All()
{
    static auto& all = *new Uses;
    return all;
}

void Forget(const StatePtr& state)
{
    Uses& all = All();
    const Lock lock(all.mutex);
    for (auto entry = all.ofServer.begin(); entry != all.ofServer.end(); ++entry) {
        if (entry->second.second == state) {
            all.ofServer.erase(entry);
            break;
        }
    }
    all.count = all.ofServer.size();
}

} // namespace

std::unique_ptr<BusUse> BusUse::Begin(TCServer& server, Function onEnd)
{
    const SendGate gate(server);
    const auto state = std::make_shared<State>();
    ConnectionPtr connection = gate ? TCServer::Private::OpenConnection(server) : nullptr;
    std::shared_ptr<LossWatch> loss = connection ? LossWatch::Of(connection.get()) : nullptr;
    if (loss == nullptr) {
        VELMORA_LOGE("the server is not open");
        return nullptr;
    }
    {
        const Lock lock(state->mutex);
        state->connection.reset(connection.release(), g_object_unref);
        state->loss = loss;
        state->onEnd = std::move(onEnd);
    }
    {
        Uses& all = All();
        const Lock lock(all.mutex);
        const ServerLife life = ServerLives::Of(&server);
        all.ofServer.emplace(life.state.get(), std::pair(life.state, state));
        all.count = all.ofServer.size();
    }
    loss->OnLost(state.get(), [weak = std::weak_ptr<State>(state)] {
        if (const StatePtr lost = weak.lock()) {
            lost->End(true);
        }
    });
    return std::unique_ptr<BusUse>(new BusUse(state));
}

BusUse::~BusUse()
{
    Forget(m_State);
    m_State->End(false);
}

void BusUse::Run(Function function) const
{
    m_State->Post(std::move(function));
}

void BusUse::RunAndWait(const Function& function) const
{
    if (LibraryThread::IsCurrent()) {
        if (const SharedConnection connection = m_State->Connection(); connection != nullptr) {
            function(connection.get());
        }
        return;
    }
    std::promise<void> done;
    if (m_State->Post([&](GDBusConnection* connection) {
            function(connection);
            done.set_value();
        })) {
        done.get_future().wait();
    }
}

void BusUse::EndAllOf(const ServerLife& server)
{
    Uses& all = All();
    if (all.count == 0) {
        return;
    }
    std::vector<StatePtr> ended;
    {
        const Lock lock(all.mutex);
        const auto range = all.ofServer.equal_range(server.state.get());
        for (auto entry = range.first; entry != range.second; ++entry) {
            ended.push_back(entry->second.second);
        }
    }
    for (const StatePtr& state : ended) {
        state->End(true);
    }
}

} // namespace Velmora::Internal
