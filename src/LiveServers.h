// Which servers are alive, and who is inside of them.
//
// GDBus hands a callback the plain pointer of its server, and no GDBus call that ends a
// registration waits for a callback that already runs. So every way into a server leads through a
// HookScope: it finds out whether the server still takes callbacks, and as long as it stands, the
// server's destructor waits.
#pragma once

#include <cstdint>
#include <memory>

namespace Velmora {
class TCServer;
}

namespace Velmora::Internal {

struct LiveServer;

class LiveServers
{
public:
    static void Add(TCServer* server);

    // For the destructor: no scope finds the server from now on; waits for those of other threads.
    static void Remove(TCServer* server);

    // No scope opens until Resume; waits for those of other threads.
    static void Quiesce(TCServer* server);
    static void Resume(TCServer* server);
};

class HookScope
{
public:
    // Open if the server is alive and takes callbacks.
    explicit HookScope(TCServer* server);
    // The same, unless the address belongs to another server by now.
    HookScope(TCServer* server, std::uint64_t identity);
    HookScope() = default;
    HookScope(HookScope&& other) noexcept = default;
    HookScope& operator=(HookScope&&) = delete;
    ~HookScope();

    explicit operator bool() const { return m_Live != nullptr; }
    TCServer* operator->() const { return m_Server; }
    TCServer& operator*() const { return *m_Server; }
    std::uint64_t Identity() const;

private:
    TCServer* m_Server = nullptr;
    std::shared_ptr<LiveServer> m_Live; // may outlive the server
};

} // namespace Velmora::Internal
