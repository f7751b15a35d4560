#include "TCServerGate.h"

#include <utility>

namespace Velmora {

namespace {

constexpr unsigned long kWait = 1000; // microseconds

thread_local const void* g_InnermostSend = nullptr; // a TCServer::SendGate

} // namespace

TCServer::SendGate::SendGate(TCServer& server) : m_Server(server)
{
    do {
        // Sends take m_ServerMutex here alone, so that one that finds it taken has not met another.
        const std::lock_guard<std::mutex> turn(server.m_SendsMutex);
        if (server.m_ServerMutex.Try(0)) {
            ++server.m_SendingCount;
            server.m_ServerMutex.Unlock();
            m_Open = true;
            m_Outer = static_cast<const SendGate*>(std::exchange(g_InnermostSend, this));
            return;
        }
    } while (server.m_ServerMutex.m_AwaitFree(kWait));
    VELMORA_LOGE("Server is going to be closed!");
}

TCServer::SendGate::~SendGate()
{
    if (!m_Open) {
        return;
    }
    g_InnermostSend = m_Outer;
    // Under the lock, and nothing after it: the closer may go on to destroy the server.
    const std::lock_guard<std::mutex> lock(m_Server.m_SendsMutex);
    if (--m_Server.m_SendingCount == 0) {
        m_Server.m_SendsEnded.notify_all();
    }
}

bool TCServer::SendGate::IsInside(const TCServer& server)
{
    for (auto* send = static_cast<const SendGate*>(g_InnermostSend); send != nullptr;
         send = send->m_Outer) {
        if (&send->m_Server == &server) {
            return true;
        }
    }
    return false;
}

TCServer::OperationLock::OperationLock(TCServer& server) : m_Server(server)
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

void TCServer::OperationLock::Unlock()
{
    if (std::exchange(m_Held, false)) {
        m_Server.m_ServerMutex.Unlock();
    }
}

// With m_ServerMutex held no further send passes the gate.
void TCServer::m_AwaitSends()
{
    std::unique_lock<std::mutex> lock(m_SendsMutex);
    m_SendsAwaited = true;
    m_SendsEnded.wait(lock, [this] { return m_SendingCount == 0; });
    m_SendsAwaited = false;
}

} // namespace Velmora
