// SPDX-License-Identifier: MIT
/// @file
/// The operations of TCServer for a server that is given by its service name.
#pragma once

#include "SennetApi.h"
#include "TCMessage.h"
#include "TCServerSignalManager.h"

namespace Velmora {

/// Sends a message from the server of this process with the service name `server`; see
/// TCServer::SendMessage().
SENNET_API bool SendMessage(const char* server, const char* dest, const TCMessage* message,
                            bool sync, TCMessage* reply);
/// Broadcasts a signal from the server of this process with the service name `source`; see
/// TCServer::SendSignal().
SENNET_API bool SendSignal(const char* source, const char* signalName, const TCMessage* message);
/// Subscribes the server of this process with the service name `source` to a signal; see
/// TCServer::SubscribeSignal(). `from` must not be null.
SENNET_API bool SubscribeSignal(const char* source, const char* from, const char* signal,
                                TCSignalCallback callback, void* userData);
/// Unsubscribes the server of this process with the service name `source` from a signal; see
/// TCServer::UnSubscribeSignal().
SENNET_API bool UnSubscribeSignal(const char* source, const char* from, const char* signal);
/// Key signals are not supported; returns false.
SENNET_API bool SubscribeKeySignal(const char* source, const char* name, const char* key,
                                   TCSignalCallback callback, void* userData);
/// Key signals are not supported; returns false.
SENNET_API bool UnSubscribeKeySignal(const char* source, const char* name, const char* key);

} // namespace Velmora
