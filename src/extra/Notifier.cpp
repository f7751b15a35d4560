// SPDX-License-Identifier: MIT
#include "extra/Notifier.h"

#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <glib.h>

#include "TCLog.h"

namespace Velmora::Internal {

namespace {

// 0 if the variable is not a positive number.
long long NumberIn(const char* variable)
{
    const char* const text = g_getenv(variable);
    gint64 number = 0;
    return text != nullptr &&
                   g_ascii_string_to_signed(text, 10, 0, G_MAXINT64, &number, nullptr) != 0
               ? number
               : 0;
}

} // namespace

Notifier::Notifier()
{
    const char* const socket = g_getenv("NOTIFY_SOCKET");
    if (socket == nullptr) {
        return;
    }
    const std::size_t length = std::strlen(socket);
    if ((*socket != '/' && *socket != '@') || length < 2 ||
        length >= sizeof(sockaddr_un::sun_path)) {
        VELMORA_LOGE("NOTIFY_SOCKET is not the address of a socket: %s", socket);
        return;
    }
    m_Socket = socket;
    if (g_getenv("WATCHDOG_PID") == nullptr || NumberIn("WATCHDOG_PID") == getpid()) {
        m_Interval = NumberIn("WATCHDOG_USEC");
    }
}

void Notifier::Send(const std::string& state) const
{
    if (m_Socket.empty()) {
        return;
    }
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket < 0) {
        return;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, m_Socket.data(), m_Socket.size());
    if (m_Socket.front() == '@') {
        address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_Socket.size());
    if (sendto(socket, state.data(), state.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address), size) < 0) {
        VELMORA_LOGW("the service manager does not hear %s", state.c_str());
    }
    close(socket);
}

} // namespace Velmora::Internal
