// A send between its gate and its end.
#pragma once

#include "TCServer.h"

namespace Velmora {

// CloseDBusServer waits for the open ones. It does not open while a close, a create or a
// subscription holds the server's mutex for long.
class TCServer::SendGate
{
public:
    explicit SendGate(TCServer& server) : m_Server(server), m_Open(server.m_ServerMutex.Try(kWait))
    {
        if (!m_Open) {
            VELMORA_LOGE("Server is going to be closed!");
            return;
        }
        ++m_Server.m_SendingCount;
        m_Server.m_ServerMutex.Unlock();
    }
    ~SendGate()
    {
        if (m_Open) {
            // Under the lock, and nothing after it: the closer may go on to destroy the server.
            const std::lock_guard<std::mutex> lock(m_Server.m_SendsMutex);
            if (--m_Server.m_SendingCount == 0) {
                m_Server.m_SendsEnded.notify_all();
            }
        }
    }
    SendGate(const SendGate&) = delete;
    SendGate& operator=(const SendGate&) = delete;

    explicit operator bool() const { return m_Open; }

private:
    static constexpr unsigned long kWait = 1000; // microseconds

    TCServer& m_Server;
    bool m_Open;
};

} // namespace Velmora
