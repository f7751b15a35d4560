// A call of the bus between its delivery and its answer.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include <gio/gio.h>

#include "GLibPtr.h"
#include "LiveServers.h"

namespace Velmora::Internal {

// An invocation that gets the error reply unless another answer has consumed it.
class Invocation
{
public:
    explicit Invocation(GDBusMethodInvocation* invocation) : m_Invocation(invocation) {}
    ~Invocation();
    Invocation(const Invocation&) = delete;
    Invocation& operator=(const Invocation&) = delete;

    void Answer(GVariant* body);
    GDBusMethodInvocation* Release();
    GDBusMethodInvocation* Get() const { return m_Invocation; }

private:
    GDBusMethodInvocation* m_Invocation;
};

// Every call gets an answer, and the answer leaves the process. GDBus only queues it, and what is
// queued is lost with the last reference to the connection or with the process. So each call holds
// the connection, and the last one of a server that has left the bus waits until all is sent,
// whichever thread that is.
class OpenCall
{
public:
    // Takes the invocation over, also if it throws.
    static std::shared_ptr<OpenCall> Begin(const Life& life, GDBusMethodInvocation* invocation);
    ~OpenCall();
    OpenCall(const OpenCall&) = delete;
    OpenCall& operator=(const OpenCall&) = delete;

    const Life& GetLife() const { return m_Life; }

    // For the one that handles the call: answers the invocation, then tells that by Answered. Null
    // if the call has got the error reply meanwhile.
    GDBusMethodInvocation* Take() { return m_Invocation.exchange(nullptr); }
    void Answered();

    // Gives the error reply to those that nobody handles, and waits until it has left.
    static void FailAll(const std::vector<std::shared_ptr<OpenCall>>& calls);

private:
    // Returns whether the call has got the error reply.
    bool Fail();
    OpenCall(Life life, const Invocation& invocation);

    const Life m_Life;
    const ConnectionPtr m_Connection;
    // Taken by the thread that handles the call, or by the one that ends the server.
    std::atomic<GDBusMethodInvocation*> m_Invocation{nullptr};
};

} // namespace Velmora::Internal
