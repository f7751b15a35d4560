#include "LiveServers.h"

#include <condition_variable>
#include <unordered_map>
#include <utility>

#include "Mutex.h"
#include "OpenCall.h"

namespace Velmora::Internal {

namespace {

Mutex g_SetMutex; // guards the set and every life

} // namespace

struct LiveServer
{
    explicit LiveServer(TCServer* owner) : server(owner) {}

    struct Entry
    {
        std::weak_ptr<OpenCall> call; // expired while a thread destroys it
        unsigned int life;
    };

    // Null when it is gone.
    TCServer* server SENNET_THREAD_SAFETY(guarded_by(g_SetMutex));
    // Takes no callbacks.
    bool quiet SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = true;
    // Of the life that takes callbacks, or took them last.
    unsigned int number SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = 0;
    ContextPtr context SENNET_THREAD_SAFETY(guarded_by(g_SetMutex));
    bool open SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = false;
    bool named SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = false;
    // The first of the open scopes. A list of the scopes themselves, so that none needs memory.
    HookScope* inside SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = nullptr;

    // Whether a callback of the life may enter; then the scope is inside.
    bool Enter(HookScope& scope, unsigned int life)
        SENNET_THREAD_SAFETY(requires_capability(g_SetMutex))
    {
        if (server == nullptr || quiet || number != life) {
            return false;
        }
        scope.m_Server = server;
        scope.m_Thread = std::this_thread::get_id();
        scope.m_Next = std::exchange(inside, &scope);
        return true;
    }
    // Where the list points to the scope.
    HookScope*& Find(const HookScope* scope) SENNET_THREAD_SAFETY(requires_capability(g_SetMutex))
    {
        HookScope** link = &inside;
        while (*link != scope) {
            link = &(*link)->m_Next;
        }
        return *link;
    }
    bool HoldsOtherThread(unsigned int life) const
        SENNET_THREAD_SAFETY(requires_capability(g_SetMutex))
    {
        for (const HookScope* scope = inside; scope != nullptr; scope = scope->m_Next) {
            if (scope->m_Thread != std::this_thread::get_id() && scope->m_Life.number <= life) {
                return true;
            }
        }
        return false;
    }
    std::unordered_map<const OpenCall*, Entry> calls SENNET_THREAD_SAFETY(guarded_by(g_SetMutex));
    // Of these calls.
    unsigned int unanswered SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = 0;
};

namespace {

struct LiveSet
{
    std::condition_variable left; // a scope has closed
    std::unordered_map<const TCServer*, std::shared_ptr<LiveServer>> servers;
};

LiveSet& Set() SENNET_THREAD_SAFETY(requires_capability(g_SetMutex));
LiveSet& Set()
{
    // Never destroyed: a server of static storage may be the last one out.
    static auto& set = *new LiveSet;
    return set;
}

} // namespace

void LiveServers::Add(TCServer* server)
{
    auto live = std::make_shared<LiveServer>(server);
    const Lock lock(g_SetMutex);
    Set().servers[server] = std::move(live);
}

// Returns the calls that are open when the scopes of other threads have closed. Those that a thread
// is just destroying, and so answering, are over then.
LiveServers::Calls LiveServers::AwaitOtherThreads(const Life& life)
{
    Calls calls; // outlives the lock, which the end of a call needs
    Lock lock(g_SetMutex);
    const LiveServer& live = *life.server;
    for (bool wait = true; wait;) {
        wait = live.HoldsOtherThread(life.number);
        if (!wait) {
            for (const auto& [key, entry] : live.calls) {
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
            lock.Wait(Set().left);
        }
    }
    return calls;
}

void LiveServers::Remove(TCServer* server)
{
    Life last;
    ContextPtr context; // released after the lock
    {
        const Lock lock(g_SetMutex);
        const auto found = Set().servers.find(server);
        last = {found->second, found->second->number};
        Set().servers.erase(found);
        last.server->server = nullptr;
        context = std::move(last.server->context);
    }
    OpenCall::FailAll(AwaitOtherThreads(last));
}

Life LiveServers::BeginCreate(TCServer* server)
{
    ContextPtr context(g_main_context_ref_thread_default());
    const Lock lock(g_SetMutex);
    const auto& live = Set().servers.at(server);
    if (std::exchange(live->quiet, false)) {
        ++live->number;
    }
    live->context.swap(context);
    live->named = false;
    return {live, live->number};
}

bool LiveServers::EndCreate(const Life& life, bool open)
{
    const Lock lock(g_SetMutex);
    life.server->open = open;
    return open && life.server->named;
}

bool LiveServers::NoteName(const Life& life)
{
    const Lock lock(g_SetMutex);
    life.server->named = true;
    return life.server->open;
}

void LiveServers::Close(TCServer* server)
{
    const Lock lock(g_SetMutex);
    Set().servers.at(server)->open = false;
}

Life LiveServers::End(TCServer* server)
{
    const Lock lock(g_SetMutex);
    const auto& live = Set().servers.at(server);
    live->quiet = true;
    return {live, live->number};
}

void LiveServers::AwaitEnd(const Life& life)
{
    OpenCall::FailAll(AwaitOtherThreads(life));
}

Life LiveServers::Of(TCServer* server)
{
    const Lock lock(g_SetMutex);
    const auto& live = Set().servers.at(server);
    return {live, live->number};
}

ContextPtr LiveServers::TakeContext(TCServer* server)
{
    const Lock lock(g_SetMutex);
    return std::move(Set().servers.at(server)->context);
}

void LiveServers::BeginCall(const Life& life, const std::shared_ptr<OpenCall>& call)
{
    const Lock lock(g_SetMutex);
    life.server->calls.emplace(call.get(), LiveServer::Entry{call, life.number});
    ++life.server->unanswered;
}

bool LiveServers::NoteAnswer(const Life& life)
{
    const Lock lock(g_SetMutex);
    return --life.server->unanswered == 0 && !life.server->open;
}

void LiveServers::EndCall(const Life& life, const OpenCall* call)
{
    const Lock lock(g_SetMutex);
    life.server->calls.erase(call);
    Set().left.notify_all();
}

HookScope::HookScope(TCServer* server)
{
    const Lock lock(g_SetMutex);
    const auto found = Set().servers.find(server);
    if (found != Set().servers.end() && found->second->Enter(*this, found->second->number)) {
        m_Life = {found->second, found->second->number};
    }
}

HookScope::HookScope(const Life& life)
{
    const Lock lock(g_SetMutex);
    if (life.server->Enter(*this, life.number)) {
        m_Life = life;
    }
}

HookScope::HookScope(HookScope&& other) noexcept
    : m_Server(other.m_Server), m_Thread(other.m_Thread)
{
    const Lock lock(g_SetMutex);
    m_Life = std::move(other.m_Life);
    if (m_Life.server != nullptr) {
        m_Life.server->Find(&other) = this;
        m_Next = other.m_Next;
    }
}

void HookScope::Close()
{
    // Freed after the lock, if this is the last to hold it.
    if (const auto left = std::move(m_Life.server)) {
        const Lock lock(g_SetMutex);
        left->Find(this) = m_Next;
        Set().left.notify_all();
    }
}

} // namespace Velmora::Internal
