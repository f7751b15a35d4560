// SPDX-License-Identifier: MIT
#include "ServerLife.h"

#include <unordered_map>
#include <utility>

#include "LocalAnswer.h"
#include "Locks.h"
#include "OpenCall.h"
#include "extra/BusUse.h"
#include "extra/CallTable.h"

namespace Velmora::Internal {

namespace {

Mutex g_LivesMutex; // guards g_States and every state

} // namespace

struct ServerState
{
    explicit ServerState(TCServer* owner) : server(owner) {}

    struct CallEntry
    {
        std::weak_ptr<OpenCall> call; // expired while a thread destroys it
        unsigned int life;
    };

    // Null once it is gone.
    TCServer* server SENNET_THREAD_SAFETY(guarded_by(g_LivesMutex));
    // Takes no callbacks.
    bool quiet SENNET_THREAD_SAFETY(guarded_by(g_LivesMutex)) = true;
    // Of the life that takes callbacks, or took them last.
    unsigned int number SENNET_THREAD_SAFETY(guarded_by(g_LivesMutex)) = 0;
    ContextPtr context SENNET_THREAD_SAFETY(guarded_by(g_LivesMutex));
    bool open SENNET_THREAD_SAFETY(guarded_by(g_LivesMutex)) = false;
    bool named SENNET_THREAD_SAFETY(guarded_by(g_LivesMutex)) = false;
    bool nameLost SENNET_THREAD_SAFETY(guarded_by(g_LivesMutex)) = false;
    // The first of the open pins. They link themselves, so that opening one needs no memory.
    ServerPin* pins SENNET_THREAD_SAFETY(guarded_by(g_LivesMutex)) = nullptr;
    std::unordered_map<const OpenCall*, CallEntry>
        calls SENNET_THREAD_SAFETY(guarded_by(g_LivesMutex));
    // How many of these calls have no reply yet.
    unsigned int unanswered SENNET_THREAD_SAFETY(guarded_by(g_LivesMutex)) = 0;

    // Links the pin if a callback of the life may enter. Returns whether it may.
    bool Enter(ServerPin& pin, unsigned int life)
        SENNET_THREAD_SAFETY(requires_capability(g_LivesMutex))
    {
        g_LivesMutex.AssertHeld();
        if (server == nullptr || quiet || number != life) {
            return false;
        }
        pin.m_Server = server;
        pin.m_Thread = std::this_thread::get_id();
        pin.m_Next = std::exchange(pins, &pin);
        return true;
    }
    // The link of the list that points to the pin.
    ServerPin*& Find(const ServerPin* pin) SENNET_THREAD_SAFETY(requires_capability(g_LivesMutex))
    {
        g_LivesMutex.AssertHeld();
        ServerPin** link = &pins;
        while (*link != pin) {
            SENNET_CHECK(*link != nullptr);
            link = &(*link)->m_Next;
        }
        return *link;
    }
    bool IsPinnedByOtherThread(unsigned int life) const
        SENNET_THREAD_SAFETY(requires_capability(g_LivesMutex))
    {
        g_LivesMutex.AssertHeld();
        for (const ServerPin* pin = pins; pin != nullptr; pin = pin->m_Next) {
            if (pin->m_Thread != std::this_thread::get_id() && pin->m_Life.number <= life) {
                return true;
            }
        }
        return false;
    }
};

namespace {

struct AllStates
{
    std::condition_variable left; // a pin has been closed, or a call has ended
    std::unordered_map<const TCServer*, std::shared_ptr<ServerState>> ofServer;
};

AllStates& All() SENNET_THREAD_SAFETY(requires_capability(g_LivesMutex));
AllStates& All()
{
    g_LivesMutex.AssertHeld();
    // Never destroyed: a server of static storage may be the last one.
    static auto& all = *new AllStates;
    return all;
}

const std::shared_ptr<ServerState>& StateOf(const TCServer* server)
    SENNET_THREAD_SAFETY(requires_capability(g_LivesMutex));
const std::shared_ptr<ServerState>& StateOf(const TCServer* server)
{
    // Throws if a hook on another thread asks for a server whose destructor waits for the hook.
    return All().ofServer.at(server);
}

} // namespace

void ServerLives::Add(TCServer* server)
{
    auto state = std::make_shared<ServerState>(server);
    const Lock lock(g_LivesMutex);
    All().ofServer[server] = std::move(state);
}

// Returns the calls that are open once the pins of other threads are closed, and the calls that
// other threads are just destroying, and so answering, are over.
ServerLives::Calls ServerLives::AwaitOtherThreads(const ServerLife& life)
{
    Calls calls; // outlives the lock, which the end of a call needs
    Lock lock(g_LivesMutex);
    const ServerState& state = *life.state;
    for (bool wait = true; wait;) {
        wait = state.IsPinnedByOtherThread(life.number);
        if (!wait) {
            for (const auto& [key, entry] : state.calls) {
                if (entry.life > life.number) {
                    continue;
                }
                if (auto call = entry.call.lock()) {
                    calls.push_back(std::move(call)); // twice does no harm
                } else {
                    wait = true;
                }
            }
        }
        if (wait) {
            lock.Wait(All().left);
        }
    }
    return calls;
}

void ServerLives::FailOpen(const ServerLife& life)
{
    OpenCall::FailAll(AwaitOtherThreads(life));
    FailLocalAnswers(life);
    CallTable::EndCallsOf(life);
    BusUse::EndAllOf(life);
}

void ServerLives::Remove(TCServer* server)
{
    ServerLife last;
    ContextPtr context; // released after the lock
    {
        const Lock lock(g_LivesMutex);
        const auto& state = StateOf(server);
        last = {state, state->number};
        All().ofServer.erase(server);
        last.state->server = nullptr;
        context = std::move(last.state->context);
    }
    FailOpen(last);
}

ServerLife ServerLives::BeginCreate(TCServer* server)
{
    ContextPtr context(g_main_context_ref_thread_default());
    const Lock lock(g_LivesMutex);
    const auto& state = StateOf(server);
    if (std::exchange(state->quiet, false)) {
        ++state->number;
    }
    state->context.swap(context);
    state->named = false;
    state->nameLost = false;
    return {state, state->number};
}

bool ServerLives::EndCreate(const ServerLife& life, bool open)
{
    const Lock lock(g_LivesMutex);
    life.state->open = open;
    return open && life.state->named;
}

bool ServerLives::NoteName(const ServerLife& life)
{
    const Lock lock(g_LivesMutex);
    life.state->named = true;
    life.state->nameLost = false;
    return life.state->open;
}

void ServerLives::NoteNameLost(const ServerLife& life)
{
    const Lock lock(g_LivesMutex);
    life.state->named = false;
    life.state->nameLost = true;
}

bool ServerLives::IsNamed(const ServerLife& life)
{
    const Lock lock(g_LivesMutex);
    return life.state->named;
}

bool ServerLives::IsNameLost(const ServerLife& life)
{
    const Lock lock(g_LivesMutex);
    return life.state->nameLost;
}

void ServerLives::Close(TCServer* server)
{
    const Lock lock(g_LivesMutex);
    StateOf(server)->open = false;
}

ServerLife ServerLives::End(TCServer* server)
{
    const Lock lock(g_LivesMutex);
    const auto& state = StateOf(server);
    state->quiet = true;
    return {state, state->number};
}

void ServerLives::AwaitEnd(const ServerLife& life)
{
    FailOpen(life);
}

ServerLife ServerLives::Of(TCServer* server)
{
    const Lock lock(g_LivesMutex);
    const auto& state = StateOf(server);
    return {state, state->number};
}

ContextPtr ServerLives::TakeContext(TCServer* server)
{
    const Lock lock(g_LivesMutex);
    return std::move(StateOf(server)->context);
}

ContextPtr ServerLives::ContextOf(TCServer* server)
{
    const Lock lock(g_LivesMutex);
    const ContextPtr& context = StateOf(server)->context;
    return ContextPtr(context ? g_main_context_ref(context.get()) : nullptr);
}

void ServerLives::BeginCall(const ServerLife& life, const std::shared_ptr<OpenCall>& call)
{
    const Lock lock(g_LivesMutex);
    [[maybe_unused]] const bool added =
        life.state->calls.emplace(call.get(), ServerState::CallEntry{call, life.number}).second;
    SENNET_CHECK(added);
    ++life.state->unanswered;
}

bool ServerLives::NoteAnswer(const ServerLife& life)
{
    const Lock lock(g_LivesMutex);
    SENNET_CHECK(life.state->unanswered > 0);
    return --life.state->unanswered == 0 && !life.state->open;
}

void ServerLives::EndCall(const ServerLife& life, const OpenCall* call)
{
    const Lock lock(g_LivesMutex);
    [[maybe_unused]] const std::size_t ended = life.state->calls.erase(call);
    SENNET_CHECK(ended == 1);
    SENNET_CHECK(life.state->calls.size() >= life.state->unanswered);
    All().left.notify_all();
}

ServerPin::ServerPin(TCServer* server)
{
    const Lock lock(g_LivesMutex);
    const auto found = All().ofServer.find(server);
    if (found == All().ofServer.end()) {
        return;
    }
    const auto& state = found->second;
    if (state->Enter(*this, state->number)) {
        m_Life = {state, state->number};
    }
}

ServerPin::ServerPin(const ServerLife& life)
{
    const Lock lock(g_LivesMutex);
    if (life.state->Enter(*this, life.number)) {
        m_Life = life;
    }
}

ServerPin::ServerPin(ServerPin&& other) noexcept
    : m_Server(other.m_Server), m_Thread(other.m_Thread)
{
    const Lock lock(g_LivesMutex);
    m_Life = std::move(other.m_Life);
    if (m_Life.state != nullptr) {
        m_Life.state->Find(&other) = this;
        m_Next = other.m_Next;
    }
}

void ServerPin::Close()
{
    // If this is the last holder, the state is freed after the lock.
    if (const auto left = std::move(m_Life.state)) {
        const Lock lock(g_LivesMutex);
        left->Find(this) = m_Next;
        All().left.notify_all();
    }
}

} // namespace Velmora::Internal
