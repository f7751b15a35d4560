// SPDX-License-Identifier: MIT
// A call of the bus between its delivery and its answer.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "GLibPtr.h"
#include "ServerLife.h"

namespace Velmora::Internal {

// An invocation that gets the error reply unless it was answered or released.
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

// Every call gets a reply, and the reply leaves the process. GDBus only queues a reply, and what is
// queued is lost with the last reference to the connection or with the process. So each call holds
// the connection, and the last call of a server that has left the bus waits until everything is
// sent, on whichever thread it ends.
class OpenCall
{
public:
    // Takes ownership of the invocation, even if it throws.
    static std::shared_ptr<OpenCall> Begin(const ServerLife& life,
                                           GDBusMethodInvocation* invocation);
    ~OpenCall();
    OpenCall(const OpenCall&) = delete;
    OpenCall& operator=(const OpenCall&) = delete;

    const ServerLife& Life() const { return m_Life; }
    GDBusConnection* Connection() const { return m_Connection.get(); }
    const std::string& Sender() const { return m_Sender; }
    bool WantsAnswer() const { return m_WantsAnswer; }

    // For the thread that handles the call: it answers the invocation, then calls Answered().
    // Returns null if the call has already got the error reply.
    GDBusMethodInvocation* Take() { return m_Invocation.exchange(nullptr); }
    void Answered();
    // Instead of Answered(): the invocation is for another thread to take.
    void PutBack(GDBusMethodInvocation* invocation) { m_Invocation = invocation; }

    // Gives the error reply to the calls that no thread handles, and waits until it has left.
    static void FailAll(const std::vector<std::shared_ptr<OpenCall>>& calls);

private:
    // Returns whether the call has got the error reply.
    bool Fail();
    OpenCall(ServerLife life, const Invocation& invocation);

    const ServerLife m_Life;
    const ConnectionPtr m_Connection;
    const std::string m_Sender; // the unique name
    const bool m_WantsAnswer;
    // Taken once, by the thread that handles the call or by the one that ends the server.
    std::atomic<GDBusMethodInvocation*> m_Invocation{nullptr};
};

} // namespace Velmora::Internal
