#include "LiveServers.h"

#include <algorithm>
#include <condition_variable>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Mutex.h"

namespace Velmora::Internal {

namespace {

Mutex g_SetMutex; // guards the set and every life

} // namespace

struct LiveServer
{
    explicit LiveServer(TCServer* owner) : server(owner) {}

    // Null when it is gone.
    TCServer* server SENNET_THREAD_SAFETY(guarded_by(g_SetMutex));
    // Takes no callbacks.
    bool quiet SENNET_THREAD_SAFETY(guarded_by(g_SetMutex)) = false;
    // One for each open scope.
    std::vector<std::thread::id> inside SENNET_THREAD_SAFETY(guarded_by(g_SetMutex));
    std::unordered_map<const OpenCall*, std::weak_ptr<OpenCall>>
        calls SENNET_THREAD_SAFETY(guarded_by(g_SetMutex));
};

namespace {

struct LiveSet
{
    std::condition_variable left; // a scope has closed
    std::unordered_map<const TCServer*, Life> servers;
};

LiveSet& Set() SENNET_THREAD_SAFETY(requires_capability(g_SetMutex));
LiveSet& Set()
{
    // Never destroyed: a server of static storage may be the last one out.
    static auto& set = *new LiveSet;
    return set;
}

// The life, with one scope more inside, if its server takes callbacks.
Life Enter(const Life& life) SENNET_THREAD_SAFETY(requires_capability(g_SetMutex));
Life Enter(const Life& life)
{
    if (life->server == nullptr || life->quiet) {
        return nullptr;
    }
    life->inside.push_back(std::this_thread::get_id());
    return life;
}

void AwaitOtherThreads(Lock& lock, const LiveServer& live)
    SENNET_THREAD_SAFETY(requires_capability(g_SetMutex));
void AwaitOtherThreads(Lock& lock, const LiveServer& live)
{
    const auto isOther = [own = std::this_thread::get_id()](std::thread::id id) {
        return id != own;
    };
    while (std::any_of(live.inside.begin(), live.inside.end(), isOther)) {
        lock.Wait(Set().left);
    }
}

} // namespace

void LiveServers::Add(TCServer* server)
{
    auto life = std::make_shared<LiveServer>(server);
    const Lock lock(g_SetMutex);
    Set().servers[server] = std::move(life);
}

void LiveServers::Remove(TCServer* server)
{
    std::vector<std::shared_ptr<OpenCall>> calls;
    {
        Lock lock(g_SetMutex);
        const auto found = Set().servers.find(server);
        const Life life = found->second;
        Set().servers.erase(found);
        life->server = nullptr;
        AwaitOtherThreads(lock, *life);
        for (const auto& [key, call] : life->calls) {
            calls.push_back(call.lock());
        }
    }
    for (const auto& call : calls) {
        if (call != nullptr) {
            call->FailAndFlush();
        }
    }
}

void LiveServers::Quiesce(TCServer* server)
{
    const Lock lock(g_SetMutex);
    Set().servers.at(server)->quiet = true;
}

void LiveServers::Resume(TCServer* server)
{
    const Lock lock(g_SetMutex);
    Set().servers.at(server)->quiet = false;
}

void LiveServers::AwaitScopes(TCServer* server)
{
    Lock lock(g_SetMutex);
    const Life life = Set().servers.at(server);
    AwaitOtherThreads(lock, *life);
}

Life LiveServers::Of(TCServer* server)
{
    const Lock lock(g_SetMutex);
    return Set().servers.at(server);
}

void LiveServers::Attach(const Life& life, const std::shared_ptr<OpenCall>& call)
{
    const Lock lock(g_SetMutex);
    life->calls.emplace(call.get(), call);
}

void LiveServers::Detach(const Life& life, const OpenCall* call)
{
    const Lock lock(g_SetMutex);
    life->calls.erase(call);
}

HookScope::HookScope(TCServer* server)
{
    const Lock lock(g_SetMutex);
    const auto found = Set().servers.find(server);
    if (found != Set().servers.end()) {
        m_Life = Enter(found->second);
        m_Server = server;
    }
}

HookScope::HookScope(const Life& life)
{
    const Lock lock(g_SetMutex);
    m_Life = Enter(life);
    m_Server = life->server;
}

HookScope::~HookScope()
{
    if (m_Life == nullptr) {
        return;
    }
    const Lock lock(g_SetMutex);
    auto& inside = m_Life->inside;
    inside.erase(std::find(inside.begin(), inside.end(), std::this_thread::get_id()));
    Set().left.notify_all();
}

} // namespace Velmora::Internal
