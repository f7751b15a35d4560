// SPDX-License-Identifier: MIT
#include "SendGate.h"

#include <utility>

#include "Locks.h"
#include "TCMutexPrivate.h"

namespace Velmora {

using namespace Internal;

namespace {

constexpr unsigned long kWait = 1000; // microseconds

thread_local const SendGate* g_InnermostSend = nullptr;

} // namespace

SendGate::SendGate(TCServer& server) : m_Server(server)
{
    do {
        // Sends take m_ServerMutex only here, and only one at a time. So a send that finds it taken
        // has met another operation.
        const Lock turn(server.m_SendsMutex);
        if (server.m_ServerMutex.Try(0)) {
            ++server.m_SendingCount;
            server.m_ServerMutex.Unlock();
            m_Open = true;
            m_Outer = std::exchange(g_InnermostSend, this);
            return;
        }
    } while (TCMutex::Private::AwaitFree(server.m_ServerMutex, kWait));
    VELMORA_LOGE("Server is going to be closed!");
}

SendGate::~SendGate()
{
    if (!m_Open) {
        return;
    }
    SENNET_CHECK(g_InnermostSend == this);
    g_InnermostSend = m_Outer;
    // Notify under the lock, and touch nothing after it: the closer may destroy the server then.
    const Lock lock(m_Server.m_SendsMutex);
    if (--m_Server.m_SendingCount == 0) {
        m_Server.m_SendsEnded.notify_all();
    }
}

bool SendGate::IsInside(const TCServer& server)
{
    for (const SendGate* send = g_InnermostSend; send != nullptr; send = send->m_Outer) {
        if (&send->m_Server == &server) {
            return true;
        }
    }
    return false;
}

OperationLock::OperationLock(TCServer& server) : m_Server(server)
{
    if (!SendGate::IsInside(server)) {
        server.m_ServerMutex.Lock();
        m_Held = true;
        return;
    }
    while (!server.m_ServerMutex.Try(kWait)) {
        if (server.m_SendsAwaited) {
            VELMORA_LOGE("%s is being closed, which waits for the send that this is called in",
                         server.m_ServiceName.c_str());
            return;
        }
    }
    m_Held = true;
}

void OperationLock::Unlock()
{
    if (std::exchange(m_Held, false)) {
        m_Server.m_ServerMutex.Unlock();
    }
}

void TCServer::Private::AwaitSends(TCServer& server)
{
    Lock lock(server.m_SendsMutex);
    server.m_SendsAwaited = true;
    while (server.m_SendingCount > 0) {
        lock.Wait(server.m_SendsEnded);
    }
    server.m_SendsAwaited = false;
}

} // namespace Velmora
