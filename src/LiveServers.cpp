#include "LiveServers.h"

#include <algorithm>
#include <condition_variable>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Mutex.h"
#include "OpenCall.h"

namespace Velmora::Internal {

namespace {

Mutex g_SetMutex; // guards the set and every life

// An open scope.
struct Inside
{
    std::thread::id thread;
    unsigned int life;
};

} // namespace

struct LiveServer
{
    explicit LiveServer(TCServer* owner) : server(owner) {}

    // Null when it is gone.
    TCServer* server SENNET_THREAD_SAFETY(guarded_by(g_SetMutex));
    // Takes no callbacks.
    bool quiet SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = true;
    // Of the life that takes callbacks, or took them last.
    unsigned int number SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = 0;
    bool creating SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = false;
    bool open SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = false;
    bool named SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = false;
    std::vector<Inside> inside SENNET_THREAD_SAFETY(guarded_by(g_SetMutex));
    std::unordered_map<const OpenCall*, std::weak_ptr<OpenCall>>
        calls SENNET_THREAD_SAFETY(guarded_by(g_SetMutex));
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

// Whether the life's server takes callbacks; then there is one scope more inside of it.
bool Enter(const Life& life) SENNET_THREAD_SAFETY(requires_capability(g_SetMutex));
bool Enter(const Life& life)
{
    LiveServer& live = *life.server;
    if (live.server == nullptr || live.quiet || live.number != life.number) {
        return false;
    }
    live.inside.push_back({std::this_thread::get_id(), life.number});
    return true;
}

using Calls = std::vector<std::shared_ptr<OpenCall>>;

// Waits for the scopes of other threads. Returns the calls that are without an answer then.
Calls AwaitOtherThreads(Lock& lock, const Life& life)
    SENNET_THREAD_SAFETY(requires_capability(g_SetMutex));
Calls AwaitOtherThreads(Lock& lock, const Life& life)
{
    const LiveServer& live = *life.server;
    const auto isAwaited = [own = std::this_thread::get_id(), &life](const Inside& scope) {
        return scope.thread != own && scope.life <= life.number;
    };
    while (std::any_of(live.inside.begin(), live.inside.end(), isAwaited)) {
        lock.Wait(Set().left);
    }
    Calls calls;
    for (const auto& [key, weak] : live.calls) {
        auto call = weak.lock();
        if (call != nullptr && call->GetLife().number <= life.number) {
            calls.push_back(std::move(call));
        }
    }
    return calls;
}

void FailAll(const Calls& calls)
{
    for (const auto& call : calls) {
        call->Fail();
    }
}

} // namespace

void LiveServers::Add(TCServer* server)
{
    auto live = std::make_shared<LiveServer>(server);
    const Lock lock(g_SetMutex);
    Set().servers[server] = std::move(live);
}

void LiveServers::Remove(TCServer* server)
{
    Calls calls;
    {
        Lock lock(g_SetMutex);
        const auto found = Set().servers.find(server);
        const Life last{found->second, found->second->number};
        Set().servers.erase(found);
        last.server->server = nullptr;
        calls = AwaitOtherThreads(lock, last);
    }
    FailAll(calls);
}

Life LiveServers::BeginCreate(TCServer* server)
{
    const Lock lock(g_SetMutex);
    const auto& live = Set().servers.at(server);
    if (std::exchange(live->quiet, false)) {
        ++live->number;
    }
    live->creating = true;
    live->named = false;
    return {live, live->number};
}

bool LiveServers::EndCreate(const Life& life, bool open)
{
    const Lock lock(g_SetMutex);
    life.server->creating = false;
    life.server->open = open;
    return open && life.server->named;
}

bool LiveServers::NoteName(const Life& life)
{
    const Lock lock(g_SetMutex);
    life.server->named = true;
    return life.server->open && !life.server->creating;
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
    Calls calls;
    {
        Lock lock(g_SetMutex);
        calls = AwaitOtherThreads(lock, life);
    }
    FailAll(calls);
}

Life LiveServers::Of(TCServer* server)
{
    const Lock lock(g_SetMutex);
    const auto& live = Set().servers.at(server);
    return {live, live->number};
}

void LiveServers::BeginCall(const Life& life, const std::shared_ptr<OpenCall>& call)
{
    const Lock lock(g_SetMutex);
    life.server->calls.emplace(call.get(), call);
}

bool LiveServers::EndCall(const Life& life, const OpenCall* call)
{
    const Lock lock(g_SetMutex);
    LiveServer& live = *life.server;
    live.calls.erase(call);
    return live.calls.empty() && !live.open;
}

HookScope::HookScope(TCServer* server)
{
    const Lock lock(g_SetMutex);
    const auto found = Set().servers.find(server);
    if (found == Set().servers.end()) {
        return;
    }
    Life life{found->second, found->second->number};
    if (Enter(life)) {
        m_Server = server;
        m_Life = std::move(life);
    }
}

HookScope::HookScope(const Life& life)
{
    const Lock lock(g_SetMutex);
    if (Enter(life)) {
        m_Server = life.server->server;
        m_Life = life;
    }
}

HookScope::~HookScope()
{
    if (m_Life.server == nullptr) {
        return;
    }
    const Lock lock(g_SetMutex);
    auto& inside = m_Life.server->inside;
    const auto isOwn = [this, own = std::this_thread::get_id()](const Inside& scope) {
        return scope.thread == own && scope.life == m_Life.number;
    };
    inside.erase(std::find_if(inside.begin(), inside.end(), isOwn));
    Set().left.notify_all();
}

} // namespace Velmora::Internal
