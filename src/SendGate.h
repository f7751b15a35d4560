// SPDX-License-Identifier: MIT
// A send between its begin and its end, and the operations that a close must not deadlock with.
#pragma once

#include "TCServerPrivate.h"

namespace Velmora {

// An open send. CloseDBusServer() waits for the open ones. The gate does not open while another
// operation (a close, a create or a subscription) holds the server's mutex for more than a
// millisecond.
class TCServer::Private::SendGate
{
public:
    explicit SendGate(TCServer& server);
    ~SendGate();
    SendGate(const SendGate&) = delete;
    SendGate& operator=(const SendGate&) = delete;

    explicit operator bool() const { return m_Open; }

    // Whether the calling thread is inside a send of the server.
    static bool IsInside(const TCServer& server);

private:
    TCServer& m_Server;
    bool m_Open = false;
    const SendGate* m_Outer = nullptr; // of the same thread
};

// Holds m_ServerMutex for an operation that a hook may call inside a send of the same server. If
// another thread's close waits for that send, the two would wait for each other; so inside a send
// the lock gives up, with an error line, as soon as a close waits.
class TCServer::Private::OperationLock
{
public:
    explicit OperationLock(TCServer& server);
    ~OperationLock() { Unlock(); }
    OperationLock(const OperationLock&) = delete;
    OperationLock& operator=(const OperationLock&) = delete;

    explicit operator bool() const { return m_Held; }
    void Unlock() SENNET_THREAD_SAFETY(no_thread_safety_analysis); // held or not

private:
    TCServer& m_Server;
    bool m_Held = false;
};

namespace Internal {
using SendGate = TCServer::Private::SendGate;
using OperationLock = TCServer::Private::OperationLock;
} // namespace Internal
} // namespace Velmora
