// SPDX-License-Identifier: MIT
// What the sources of TCServer share.
#pragma once

#include "ServerLife.h"
#include "TCServer.h"

namespace Velmora {

namespace Internal {
class PendingCall;
} // namespace Internal

struct __attribute__((visibility("hidden"))) TCServer::Private
{
    class Calling;       // extra/TCServerCall.cpp
    class MovedCall;     // TCServerReceive.cpp
    class Opening;       // TCServerCreate.cpp
    class OperationLock; // SendGate.h
    class PendingReply;  // TCServerSend.cpp
    class QueuedCall;    // extra/TCServerCall.cpp
    class Registry;      // ServerRegistry.h
    class SendGate;      // SendGate.h
    class Sending;       // TCServerSend.cpp

    static bool IsConnected(const TCServer& server);
    // One reference to the connection; null if the server is not open. With the send gate open.
    static Internal::ConnectionPtr OpenConnection(const TCServer& server);
    static const std::string& BusName(const TCServer& server) { return server.m_DBusName; }
    static bool IsProxy(const TCServer& server) { return server.m_ServerType == SERVER_TYPE_PROXY; }

    // With m_ServerMutex held, so that no further send begins. Waits for the end of all sends.
    static void AwaitSends(TCServer& server);
    // With m_ServerMutex held and all sends ended. Gives up what the server holds of the bus.
    static void ReleaseBus(TCServer& server);

    // Returns false if another thread holds the server, so that the signal may be sent later.
    static bool SendStartSignal(TCServer& server);

    // Starts a call from the server; whatever is wrong becomes its end.
    static void StartCall(TCServer& server, const std::shared_ptr<Internal::PendingCall>& call,
                          const char* dest, const TCMessage& message, int timeout);

    // What GDBus calls, with a BusHandle as user data.
    struct Callbacks;
};

// The names are those of the given callbacks that take a server: log lines begin with them, and
// users look for those.
struct TCServer::Private::Callbacks
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

    // Shared with the given callbacks. The caller of an invocation that is not answered gets the
    // error reply.
    static void DeliverCall(const Internal::ServerPin& server, const char* methodName,
                            GVariant* parameters, GDBusMethodInvocation* invocation);
    static void DeliverSignal(const Internal::ServerPin& server, const char* interfaceName,
                              const char* signalName, GVariant* parameters);
    static void NoteName(const Internal::ServerPin& server);
};

} // namespace Velmora
