#include "LiveServers.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace Velmora::Internal {

// All fields are guarded by the mutex of the set.
struct LiveServer
{
    std::uint64_t identity;
    bool quiet = false;                  // takes no callbacks
    std::vector<std::thread::id> inside; // one for each open scope
};

namespace {

struct LiveSet
{
    std::mutex mutex;
    std::condition_variable left; // a scope has closed
    std::uint64_t lastIdentity = 0;
    std::unordered_map<const TCServer*, std::shared_ptr<LiveServer>> servers;
};

LiveSet& Set()
{
    // Never destroyed: a server of static storage may be the last one out.
    static auto& set = *new LiveSet;
    return set;
}

void AwaitOtherThreads(std::unique_lock<std::mutex>& lock, const LiveServer& live)
{
    Set().left.wait(lock, [&live, own = std::this_thread::get_id()] {
        return std::all_of(live.inside.begin(), live.inside.end(),
                           [own](std::thread::id thread) { return thread == own; });
    });
}

// Zero means any identity.
std::shared_ptr<LiveServer> Enter(TCServer* server, std::uint64_t identity)
{
    const std::lock_guard<std::mutex> lock(Set().mutex);
    const auto found = Set().servers.find(server);
    if (found == Set().servers.end() || found->second->quiet ||
        (identity != 0 && found->second->identity != identity)) {
        return nullptr;
    }
    found->second->inside.push_back(std::this_thread::get_id());
    return found->second;
}

} // namespace

void LiveServers::Add(TCServer* server)
{
    auto live = std::make_shared<LiveServer>();
    const std::lock_guard<std::mutex> lock(Set().mutex);
    live->identity = ++Set().lastIdentity;
    Set().servers[server] = std::move(live);
}

void LiveServers::Remove(TCServer* server)
{
    std::unique_lock<std::mutex> lock(Set().mutex);
    const auto found = Set().servers.find(server);
    const std::shared_ptr<LiveServer> live = found->second;
    Set().servers.erase(found);
    AwaitOtherThreads(lock, *live);
}

void LiveServers::Quiesce(TCServer* server)
{
    std::unique_lock<std::mutex> lock(Set().mutex);
    const std::shared_ptr<LiveServer> live = Set().servers.at(server);
    live->quiet = true;
    AwaitOtherThreads(lock, *live);
}

void LiveServers::Resume(TCServer* server)
{
    const std::lock_guard<std::mutex> lock(Set().mutex);
    Set().servers.at(server)->quiet = false;
}

HookScope::HookScope(TCServer* server) : HookScope(server, 0) {}

HookScope::HookScope(TCServer* server, std::uint64_t identity)
    : m_Server(server), m_Live(Enter(server, identity))
{}

HookScope::~HookScope()
{
    if (m_Live == nullptr) {
        return;
    }
    const std::lock_guard<std::mutex> lock(Set().mutex);
    auto& inside = m_Live->inside;
    inside.erase(std::find(inside.begin(), inside.end(), std::this_thread::get_id()));
    Set().left.notify_all();
}

std::uint64_t HookScope::Identity() const
{
    return m_Live->identity;
}

} // namespace Velmora::Internal
