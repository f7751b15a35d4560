// SPDX-License-Identifier: MIT
#include "TCServerFunctions.h"

#include "TCServer.h"

namespace Velmora {

bool SendMessage(const char* server, const char* dest, const TCMessage* message, bool sync,
                 TCMessage* reply)
{
    return TCServer::SendMessage(server, dest, message, sync, reply);
}

bool SendSignal(const char* source, const char* signalName, const TCMessage* message)
{
    return TCServer::SendSignal(source, signalName, message);
}

bool SubscribeSignal(const char* source, const char* from, const char* signal,
                     TCSignalCallback callback, void* userData)
{
    return TCServer::SubscribeSignal(source, from, signal, callback, userData);
}

bool UnSubscribeSignal(const char* source, const char* from, const char* signal)
{
    return TCServer::UnSubscribeSignal(source, from, signal);
}

bool SubscribeKeySignal(const char* source, const char* name, const char* key,
                        TCSignalCallback callback, void* userData)
{
    return TCServer::SubscribeKeySignal(source, name, key, callback, userData);
}

bool UnSubscribeKeySignal(const char* source, const char* name, const char* key)
{
    return TCServer::UnSubscribeKeySignal(source, name, key);
}

} // namespace Velmora
