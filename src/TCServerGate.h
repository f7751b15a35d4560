// A send between its gate and its end, and what waits for such sends.
#pragma once

#include "TCServer.h"

namespace Velmora {

// CloseDBusServer waits for the open ones. It does not open while something other than a send, so a
// close, a create or a subscription, holds the server's mutex for long.
class TCServer::SendGate
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

// Holds m_ServerMutex for an operation that a hook may call inside a send of the same server, for
// which another thread's close may be waiting: neither would ever go on. So there it is not held,
// with an error line, as soon as a close waits.
class TCServer::OperationLock
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

} // namespace Velmora
