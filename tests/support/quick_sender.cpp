// SPDX-License-Identifier: MIT
// Sends fifty messages and exits at once.
#include "sennet.h"

int main()
{
    Velmora::TCServer proxy("sender", Velmora::TCServer::SERVER_TYPE_PROXY);
    bool sent = proxy.CreateDBusProxy();
    Velmora::TCMessage message;
    for (int i = 0; i < 50; ++i) {
        sent = sent && proxy.SendMessage("app", &message, false, nullptr);
    }
    proxy.CloseDBusProxy();
    return sent ? 0 : 1;
}
