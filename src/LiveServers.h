// Which servers are alive, and who is inside of them.
//
// GDBus hands a callback the plain pointer of its server, and no GDBus call that ends a
// registration waits for a callback that already runs. So every way into a server leads through a
// HookScope: it finds out whether the server still takes callbacks, and as long as it stands, the
// server's destructor waits.
#pragma once

#include <memory>

namespace Velmora {
class TCServer;
}

namespace Velmora::Internal {

// A server's life, which outlasts it. Tells a server from a later one at the same address.
struct LiveServer;
using Life = std::shared_ptr<LiveServer>;

// An inbound call on its way to another thread, still without an answer.
class OpenCall
{
public:
    virtual ~OpenCall() = default;
    virtual void FailAndFlush() = 0;
};

class LiveServers
{
public:
    static void Add(TCServer* server);

    // For the destructor: no scope finds the server from now on; waits for those of other threads,
    // and fails the calls that have not been handled by then.
    static void Remove(TCServer* server);

    // Between the two no scope opens.
    static void Quiesce(TCServer* server);
    static void Resume(TCServer* server);

    // Waits for the scopes of other threads.
    static void AwaitScopes(TCServer* server);

    static Life Of(TCServer* server);

    // Between the two, the end of the server fails the call, unless that is being destroyed.
    static void Attach(const Life& life, const std::shared_ptr<OpenCall>& call);
    static void Detach(const Life& life, const OpenCall* call);
};

class HookScope
{
public:
    // Open if the server is alive and takes callbacks.
    explicit HookScope(TCServer* server);
    explicit HookScope(const Life& life);
    HookScope() = default;
    HookScope(HookScope&& other) noexcept = default;
    HookScope& operator=(HookScope&&) = delete;
    ~HookScope();

    explicit operator bool() const { return m_Life != nullptr; }
    TCServer* operator->() const { return m_Server; }
    TCServer& operator*() const { return *m_Server; }
    const Life& GetLife() const { return m_Life; }

private:
    TCServer* m_Server = nullptr; // of no meaning in a scope that is not open
    Life m_Life;
};

} // namespace Velmora::Internal
