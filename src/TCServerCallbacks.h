// What GDBus calls, with a BusHandle as user data. The names are those of the callbacks that take a
// server: log lines begin with them, and users look for those.
#pragma once

#include "LiveServers.h"
#include "TCServer.h"

namespace Velmora {

struct TCServer::Callbacks
{
    static const GDBusInterfaceVTable callTable;

    static void m_DObjectHandler(GDBusConnection* connection, const char* sender, const char* path,
                                 const char* interfaceName, const char* methodName,
                                 GVariant* parameters, GDBusMethodInvocation* invocation,
                                 void* handle);
    static void m_DSignalHandler(GDBusConnection* connection, const char* sender, const char* path,
                                 const char* interfaceName, const char* signalName,
                                 GVariant* parameters, void* handle);
    static void m_OnNameAcquired(GDBusConnection* connection, const char* name, void* handle);
    static void m_OnNameLost(GDBusConnection* connection, const char* name, void* handle);

    // What the callbacks have in common with those that are given a server. An invocation that is
    // left gets the error reply.
    static void DeliverCall(const Internal::HookScope& server, const char* methodName,
                            GVariant* parameters, GDBusMethodInvocation* invocation);
    static void DeliverSignal(const Internal::HookScope& server, const char* interfaceName,
                              const char* signalName, GVariant* parameters);
    static void NoteName(const Internal::HookScope& server);
};

} // namespace Velmora
