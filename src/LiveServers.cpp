#include "LiveServers.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Velmora::Internal {

// All fields are guarded by the mutex of the set.
struct LiveServer
{
    TCServer* server;                    // null when it is gone
    bool quiet = false;                  // takes no callbacks
    std::vector<std::thread::id> inside; // one for each open scope
    std::unordered_map<const OpenCall*, std::weak_ptr<OpenCall>> calls;
};

namespace {

struct LiveSet
{
    std::mutex mutex;
    std::condition_variable left; // a scope has closed
    std::unordered_map<const TCServer*, Life> servers;
};

LiveSet& Set()
{
    // Never destroyed: a server of static storage may be the last one out.
    static auto& set = *new LiveSet;
    return set;
}

using Lock = std::unique_lock<std::mutex>;

void AwaitOtherThreads(Lock& lock, const LiveServer& live)
{
    Set().left.wait(lock, [&live, own = std::this_thread::get_id()] {
        return std::all_of(live.inside.begin(), live.inside.end(),
                           [own](std::thread::id thread) { return thread == own; });
    });
}

} // namespace

void LiveServers::Add(TCServer* server)
{
    auto life = std::make_shared<LiveServer>();
    life->server = server;
    const Lock lock(Set().mutex);
    Set().servers[server] = std::move(life);
}

void LiveServers::Remove(TCServer* server)
{
    std::vector<std::shared_ptr<OpenCall>> calls;
    {
        Lock lock(Set().mutex);
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
    const Lock lock(Set().mutex);
    Set().servers.at(server)->quiet = true;
}

void LiveServers::Resume(TCServer* server)
{
    const Lock lock(Set().mutex);
    Set().servers.at(server)->quiet = false;
}

void LiveServers::AwaitScopes(TCServer* server)
{
    Lock lock(Set().mutex);
    const Life life = Set().servers.at(server);
    AwaitOtherThreads(lock, *life);
}

Life LiveServers::Of(TCServer* server)
{
    const Lock lock(Set().mutex);
    return Set().servers.at(server);
}

void LiveServers::Attach(const Life& life, const std::shared_ptr<OpenCall>& call)
{
    const Lock lock(Set().mutex);
    life->calls.emplace(call.get(), call);
}

void LiveServers::Detach(const Life& life, const OpenCall* call)
{
    const Lock lock(Set().mutex);
    life->calls.erase(call);
}

HookScope::HookScope(TCServer* server)
{
    const Lock lock(Set().mutex);
    const auto found = Set().servers.find(server);
    if (found != Set().servers.end()) {
        Open(found->second);
    }
}

HookScope::HookScope(const Life& life)
{
    const Lock lock(Set().mutex);
    Open(life);
}

// The caller holds the lock of the set.
void HookScope::Open(const Life& life)
{
    if (life->server != nullptr && !life->quiet) {
        life->inside.push_back(std::this_thread::get_id());
        m_Server = life->server;
        m_Life = life;
    }
}

HookScope::~HookScope()
{
    if (m_Life == nullptr) {
        return;
    }
    const Lock lock(Set().mutex);
    auto& inside = m_Life->inside;
    inside.erase(std::find(inside.begin(), inside.end(), std::this_thread::get_id()));
    Set().left.notify_all();
}

} // namespace Velmora::Internal
