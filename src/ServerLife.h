// SPDX-License-Identifier: MIT
// Which servers are alive, and which threads are inside them.
//
// A callback of GDBus may begin just before its registration ends, and run on after its server is
// gone and another server has the same address; no GDBus call that ends a registration waits for
// the callback. So every way into a server is a ServerPin: it opens only if the server still takes
// callbacks, and the server's destructor waits for it.
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
struct ServerState; // what is known of one TCServer object

// A server from a create to the AwaitHooks() or the destructor that ends what the create began. A
// create after a close alone continues the same life. Outlasts the server.
struct ServerLife
{
    std::shared_ptr<ServerState> state;
    unsigned int number = 0;
};

// All lives of all servers of the process. The servers passed in are alive.
class ServerLives
{
public:
    // The server takes no callbacks before its first create.
    static void Add(TCServer* server);

    // For the destructor: no pin opens from now on. Waits for the pins of other threads, then gives
    // the error reply to the calls that were not handled.
    static void Remove(TCServer* server);

    // A create begins, in a new life if the last one is over, and the server takes callbacks.
    static ServerLife BeginCreate(TCServer* server);
    // The create has ended. Returns whether the server is open and already has its name.
    static bool EndCreate(const ServerLife& life, bool open);
    // The server has got its name. Returns whether it is open; if not, EndCreate() will see the
    // name.
    static bool NoteName(const ServerLife& life);
    // The bus has answered that another one has the name, or that it refuses it.
    static void NoteNameLost(const ServerLife& life);
    static bool IsNamed(const ServerLife& life);
    static bool IsNameLost(const ServerLife& life);
    // The server has left the bus.
    static void Close(TCServer* server);

    // Ends the life: no pin of it opens from now on.
    static ServerLife End(TCServer* server);
    // Waits for the pins of other threads, then gives the error reply to the calls that were not
    // handled.
    static void AwaitEnd(const ServerLife& life);

    // The life that takes callbacks, or took them last.
    static ServerLife Of(TCServer* server);
    // Hands over the context on which the callbacks of the last create run. It is not kept longer:
    // what is queued on a context holds the life, so the two would keep each other for ever.
    static ContextPtr TakeContext(TCServer* server);
    // One reference to that context; null if the server is closed.
    static ContextPtr ContextOf(TCServer* server);

    // A call is open between these two. The end of its life gives it the error reply, or waits for
    // the thread that is just destroying it.
    static void BeginCall(const ServerLife& life, const std::shared_ptr<OpenCall>& call);
    static void EndCall(const ServerLife& life, const OpenCall* call);
    // An open call has got its reply. Returns whether it was the last one of a server that has left
    // the bus.
    static bool NoteAnswer(const ServerLife& life);

private:
    using Calls = std::vector<std::shared_ptr<OpenCall>>;
    static Calls AwaitOtherThreads(const ServerLife& life);
    static void FailOpen(const ServerLife& life);
};

// Keeps a server from being destroyed while the calling thread is inside it. Must be closed on the
// thread that has opened it.
class ServerPin
{
public:
    // Opens if the server is alive and takes callbacks. The pointer may be stale.
    explicit ServerPin(TCServer* server);
    // Opens if the same is true and the life is not over.
    explicit ServerPin(const ServerLife& life);
    ServerPin() = default;
    ServerPin(ServerPin&& other) noexcept;
    ServerPin& operator=(ServerPin&&) = delete;
    ~ServerPin() { Close(); }

    // Leaves the server before the end of the scope.
    void Close();

    explicit operator bool() const { return m_Life.state != nullptr; }
    TCServer* operator->() const { return m_Server; }
    TCServer& operator*() const { return *m_Server; }
    const ServerLife& Life() const { return m_Life; }

private:
    friend class ServerLives;
    friend struct ServerState;

    TCServer* m_Server = nullptr; // valid only while the pin is open
    ServerLife m_Life;
    std::thread::id m_Thread;
    ServerPin* m_Next = nullptr; // in the list of the pins of the server, under its lock
};

} // namespace Velmora::Internal
