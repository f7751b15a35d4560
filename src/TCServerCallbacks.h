// What GDBus calls, with a BusHandle as user data.
#pragma once

#include "LiveServers.h"
#include "TCServer.h"

namespace Velmora {

struct TCServer::Callbacks
{
    static const GDBusInterfaceVTable callTable;

    static void Call(GDBusConnection* connection, const char* sender, const char* path,
                     const char* interfaceName, const char* methodName, GVariant* parameters,
                     GDBusMethodInvocation* invocation, void* handle);
    static void Signal(GDBusConnection* connection, const char* sender, const char* path,
                       const char* interfaceName, const char* signalName, GVariant* parameters,
                       void* handle);
    static void NameAcquired(GDBusConnection* connection, const char* name, void* handle);
    static void NameLost(GDBusConnection* connection, const char* name, void* handle);

    // What the callbacks have in common with those that are given a server. An invocation that is
    // left gets the error reply.
    static void DeliverCall(const Internal::HookScope& server, const char* methodName,
                            GVariant* parameters, GDBusMethodInvocation* invocation);
    static void DeliverSignal(const Internal::HookScope& server, const char* interfaceName,
                              const char* signalName, GVariant* parameters);
    static void NoteName(const Internal::HookScope& server);
};

} // namespace Velmora
