// Which servers are alive, and who is inside of them.
//
// A callback of GDBus may begin just before its registration ends and go on after its server is
// gone, when another server may have the same address; no GDBus call that ends a registration waits
// for it. So every way into a server leads through a HookScope: it finds out whether the server of
// that life still takes callbacks, and as long as it stands, the server's destructor waits.
#pragma once

#include <memory>
#include <thread>
#include <vector>

#include "GLibPtr.h"

namespace Velmora {
class TCServer;
}

namespace Velmora::Internal {

class OpenCall;
struct LiveServer;

// A server from a create to the AwaitHooks or the destructor that ends what the create began; a
// create after a mere close goes on with the same life. Outlasts the server.
struct Life
{
    std::shared_ptr<LiveServer> server;
    unsigned int number = 0;
};

class LiveServers
{
public:
    // Takes no callbacks until its first create.
    static void Add(TCServer* server);

    // For the destructor: no scope finds the server from now on; waits for those of other threads,
    // and fails the calls that have not been handled by then.
    static void Remove(TCServer* server);

    // A create begins and takes callbacks, in a new life if the last one is over.
    static Life BeginCreate(TCServer* server);
    // It has ended. Returns whether the server is open and has its name already.
    static bool EndCreate(const Life& life, bool open);
    // The server has its name. Returns whether it is open; if not, EndCreate tells.
    static bool NoteName(const Life& life);
    // The server has left the bus.
    static void Close(TCServer* server);

    // Ends the life: no scope opens from now on.
    static Life End(TCServer* server);
    // Waits for the scopes of other threads, and fails the calls that have not been handled by
    // then.
    static void AwaitEnd(const Life& life);

    static Life Of(TCServer* server);
    // Where the callbacks of its last create run. No longer held then: what is queued there holds
    // the life, and would keep an abandoned context for ever.
    static ContextPtr TakeContext(TCServer* server);

    // Between the two, a call of the life is open. The end of the life fails it, or waits for the
    // thread that is just destroying it.
    static void BeginCall(const Life& life, const std::shared_ptr<OpenCall>& call);
    static void EndCall(const Life& life, const OpenCall* call);
    // In between it is answered. Returns whether it was the last one of a server that has left the
    // bus.
    static bool NoteAnswer(const Life& life);

private:
    using Calls = std::vector<std::shared_ptr<OpenCall>>;
    static Calls AwaitOtherThreads(const Life& life);
};

class HookScope
{
public:
    // Open if the server is alive and takes callbacks.
    explicit HookScope(TCServer* server);
    // Open if, besides, the life is not over.
    explicit HookScope(const Life& life);
    HookScope() = default;
    HookScope(HookScope&& other) noexcept;
    HookScope& operator=(HookScope&&) = delete;
    ~HookScope() { Close(); }

    // Leaves the server before the end of the scope.
    void Close();

    explicit operator bool() const { return m_Life.server != nullptr; }
    TCServer* operator->() const { return m_Server; }
    TCServer& operator*() const { return *m_Server; }
    const Life& GetLife() const { return m_Life; }

private:
    friend class LiveServers;
    friend struct LiveServer;

    TCServer* m_Server = nullptr; // of no meaning in a scope that is not open
    Life m_Life;
    std::thread::id m_Thread;
    HookScope* m_Next = nullptr; // in the list of those inside the server, under its lock
};

} // namespace Velmora::Internal
