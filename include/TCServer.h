// SPDX-License-Identifier: MIT
/// @file
/// A named endpoint on the system message bus.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>

#include <gio/gio.h>

#include "SennetApi.h"
#include "TCEventIO.h"
#include "TCMessage.h"
#include "TCServerFunctions.h"
#include "TCServerHelper.h"
#include "TCServerSignalManager.h"

namespace Velmora {

/// An endpoint on the D-Bus system bus: sends messages to services by name, receives messages in
/// its hooks, broadcasts and receives signals.
///
/// Order of use: construct; CreateDBusServer(); run a main loop on the context of that thread; send
/// and subscribe; CloseDBusServer(); AwaitHooks(); destruct. Create and close may be repeated.
///
/// Threads. Hooks and signal callbacks run on the bus dispatch thread: the thread that runs a main
/// loop on the context that was thread-default for the caller of CreateDBusServer(); for signals,
/// of SubscribeSignal(); for replies, of SendMessage(). Unless the client pushed another one, that
/// is the global default context. Without such a loop no hook runs, and messages pile up. A hook
/// that throws there ends the process. For hooks on other threads, see SendMessage() and
/// IfTransferMessage().
///
/// Lifetime. What arrives for a destroyed server reaches neither it nor a new server at the same
/// address, and the destructor waits for hooks on other threads. But by then the derived class is
/// already destroyed: if its hooks run on other threads, its own destructor must begin with the
/// close and AwaitHooks(), if they were not called before. A hook must not destroy its server, and
/// two hooks of one server must not call AwaitHooks() at once: they would wait for each other.
///
/// What may overlap. Sends, subscriptions, create, close and AwaitHooks() of one server may be
/// called on any threads at once. A send that waits for one of the others for more than a
/// millisecond returns false ("Server is going to be closed!"). In a hook that runs inside a send
/// of this server, create, subscriptions and AwaitHooks() of this server return false, with an
/// error line, if a close waits for that send. IsServiceAvailable() must not overlap a close, and
/// nothing may overlap the destructor.
///
/// Limits. A text or type that is not UTF-8 or contains a NUL, a name that is not legal on D-Bus
/// and a message over the bus's size limit are refused with false and an error line; as a reply,
/// they are replaced by the error reply. An illegal signal name gets a debug line only.
class SENNET_API TCServer
{
public:
    /// The kinds of server.
    enum TCServerType : std::uint32_t {
        SERVER_TYPE_SERVICE = 0, ///< the service of the process; only one can be open
        SERVER_TYPE_ACTIVITY,    ///< a sub-service of the process; any number
        SERVER_TYPE_PROXY        ///< sends messages and subscribes; has no name and no signals
    };

    /// @param name the service name; must be UTF-8, or every send and reply fails
    /// @param type cannot change later
    TCServer(std::string name, TCServerType type);
    /// Waits for hooks on other threads. Closes nothing: call CloseDBusServer() first.
    virtual ~TCServer();
    TCServer(const TCServer&) = delete;
    TCServer& operator=(const TCServer&) = delete;

    /// Connects to the system bus. A service or an activity also requests its name, exports its
    /// object and is registered in this process. The bus grants the name asynchronously; then the
    /// server emits the signal "service_start_default". Blocks for at most 60 seconds. All servers
    /// of a process share GDBus's connection. If the bus has dropped that one and another part of
    /// the process still holds it, they share one of the library's own. Do not call this inside a
    /// send of this server.
    /// @return whether the server is open; the next create or close releases what a failure leaves
    bool CreateDBusServer();
    /// Same as CreateDBusServer(); the type of the server decides what is created.
    bool CreateDBusProxy();

    /// Closes the server, in any state. Waits for its sends that are in progress and refuses new
    /// ones. Blocks until everything sent and answered has left the process: at most 5 seconds on
    /// a bus that does not read (an error line then reports the loss), plus 25 seconds to release
    /// the name. Do not call this in a send of this server or on a thread that such a send awaits.
    void CloseDBusServer();
    /// Same as CloseDBusServer().
    void CloseDBusProxy();

    /// Waits until no hook or callback of a closed server runs on another thread; none starts
    /// before the next create. Late replies, signals and queued messages are dropped. Calls that
    /// were not handled get the error reply; calls that the main loop has not dispatched yet get an
    /// error from GDBus when it runs again. When this returns, every reply has left the process,
    /// within the limit of CloseDBusServer(). Inside a hook it does not wait for that hook.
    /// @return false, with an error line, if not closed, or inside a send that a close waits for
    bool AwaitHooks();
    /// Returns null, with an error line: a server has no loop of its own.
    GMainLoop* GetMainLoop();
    /// Asks the bus whether a service, or "owner.activity", has an owner. Blocks up to 25 seconds.
    bool IsServiceAvailable(const char* serviceName);

    /// Sends a message to a service. May be called on any thread. Within one process a synchronous
    /// send calls the target's hook on the calling thread, and an asynchronous send without a reply
    /// goes through the target's queue if it is a TCEventIO. Everything else goes over the bus.
    ///
    /// A message in a queue is sent again when it is dispatched, on the queue's thread, as a
    /// synchronous send of the same sender, and the result is not reported. This second send is
    /// dropped if the sender is a proxy, is closed by then, or is busy with a close, create or
    /// subscription; if the target is closed, it goes over the bus, and the queue's thread waits
    /// for the reply. To lose no message, ask for a reply, which takes it over the bus; or keep
    /// both servers open until a later SendSyncEvent() to the target has returned.
    /// @param dest the target's service name; "owner.activity" for an activity of another process
    /// @param message copied
    /// @param sync true waits for the reply
    /// @param reply synchronous: receives the reply; not null. Asynchronous: any pointer but null
    ///              asks for IfMessageReplied(), and the object is not used.
    /// @param timeout of a synchronous call over the bus, in milliseconds; -1 for GDBus's default
    /// @return synchronous: whether a reply came that does not contain `"dbus_result":"fail"`;
    ///         asynchronous: whether the message was accepted. False comes with a log line.
    bool SendMessage(const char* dest, const TCMessage* message, bool sync, TCMessage* reply,
                     int timeout = -1);
    /// Sends from the server of this process with the service name `server`.
    static bool SendMessage(const char* server, const char* dest, const TCMessage* message,
                            bool sync, TCMessage* reply);

    /// Broadcasts a signal. May be called on any thread.
    /// @param signalName a D-Bus member name
    /// @param message copied; may be null
    /// @return whether GDBus has accepted it; a proxy cannot send signals
    bool SendSignal(const char* signalName, const TCMessage* message);
    /// Broadcasts from the server of this process with the service name `source`.
    static bool SendSignal(const char* source, const char* signalName, const TCMessage* message);

    /// Subscribes to a signal until UnSubscribeSignal() or the close. May be called on any thread.
    /// @param from the sender's service name; null means any sender
    /// @param signal the signal's name
    /// @param callback called on the bus dispatch thread; null means IfMessageReceived()
    /// @param userData passed to the callback
    /// @return false if the connection is not open or a name is not legal on D-Bus; true also if it
    ///         was subscribed before, and the first callback stays. The bus does not report that
    ///         its limit of match rules is reached: it never delivers signals beyond it.
    bool SubscribeSignal(const char* from, const char* signal, TCSignalCallback callback,
                         void* userData);
    /// Subscribes the server of this process with the service name `source`; `from` is not null.
    static bool SubscribeSignal(const char* source, const char* from, const char* signal,
                                TCSignalCallback callback, void* userData);

    /// Ends a subscription that has a `from`; one without it ends at the close. A callback that is
    /// running on another thread continues: keep callback and userData until the close and
    /// AwaitHooks().
    /// @return false if the connection is not open or `from` is null
    bool UnSubscribeSignal(const char* from, const char* signal);
    /// Unsubscribes the server of this process with the service name `source`.
    static bool UnSubscribeSignal(const char* source, const char* from, const char* signal);

    /// Not supported; returns false.
    bool SubscribeKeySignal(const char* name, const char* key, TCSignalCallback callback,
                            void* userData);
    /// Not supported; returns false.
    static bool SubscribeKeySignal(const char* source, const char* name, const char* key,
                                   TCSignalCallback callback, void* userData);
    /// Not supported; returns false.
    bool UnSubscribeKeySignal(const char* name, const char* key);
    /// Not supported; returns false.
    static bool UnSubscribeKeySignal(const char* source, const char* name, const char* key);

    /// @return the open server of this process with that name, which the client must keep alive;
    ///         null, with a log line, if there is none
    static TCServer* m_GetDbusServer(const char* source);
    /// @return the bus and interface name: "owner.name.message" for an activity of this process,
    ///         otherwise "name.message"; TCServerHelper::FormatDBusName() replaces illegal bytes
    static std::string m_GetDBusName(std::string name);
    /// The open servers of this process except proxies, by service name. Owns nothing. The library
    /// guards it with an internal lock: read it only while no server is opened or closed.
    static std::map<std::string, TCServer*> m_CreatedDbusServers;
    /// What GDBus calls for the exported object.
    static const GDBusInterfaceVTable m_gVTable;
    struct Private; // the library's own, in src/

protected:
    /// For subclasses: decides where an inbound call is handled. Runs on the bus dispatch thread.
    /// @param from,message as in IfMessageReceived()
    /// @param target set this to a queue and return true to have IfMessageReceived() run on that
    ///               queue's thread. If the queue is full, it runs on the dispatch thread, perhaps
    ///               while another runs on the queue's. Keep the queue until AwaitHooks() returns.
    virtual bool IfTransferMessage(const char* from, const TCMessage* message, TCEventIO*& target);

    /// For subclasses: handles a message or a signal. The arguments are valid during the call.
    /// @param from the service name that the sender claims; null for a body of an unknown shape
    /// @param message what was sent
    /// @param reply fill it to reply; not used for a signal
    /// @param signalName null for a message; the name of a signal that has no callback
    /// @return ignored
    virtual bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                                   const char* signalName);

    /// For subclasses: handles the reply to an asynchronous send. Not called for a reply without
    /// text, type and buffer, nor for a call that has failed.
    virtual bool IfMessageReplied(const char* from, const TCMessage* message);

    /// @cond internal
    static void m_OnNameAcquired(GDBusConnection* connection, const char* name, void* userData);
    static void m_OnNameLost(GDBusConnection* connection, const char* name, void* userData);
    static void m_DObjectHandler(GDBusConnection* connection, const char* sender, const char* path,
                                 const char* interfaceName, const char* methodName,
                                 GVariant* parameters, GDBusMethodInvocation* invocation,
                                 void* userData);
    static void m_DSignalHandler(GDBusConnection* connection, const char* sender, const char* path,
                                 const char* interfaceName, const char* signalName,
                                 GVariant* parameters, void* userData);
    static void m_PendingCallNotify(GObject* source, GAsyncResult* result, void* userData);
    void m_HandleMsg(const char* from, const TCMessage* message, GDBusMethodInvocation* invocation);
    int m_SubscribeSignal(const char* from, const char* signal,
                          TCServerSignalManager::TCSignalType type, unsigned int& id,
                          std::string& key);
    bool m_UnSubscribeSignal(const char* from, const char* signal,
                             TCServerSignalManager::TCSignalType type);

    // Written under m_ServerMutex while no send is counted, and constant while one is.
    const TCServerType m_ServerType;
    bool m_FlagOpen = false;
    std::atomic<bool> m_SendsAwaited{false}; // a thread waits for sends; under m_SendsMutex
    const std::string m_ServiceName;
    std::string m_DBusName;
    std::string m_ObjectPath;
    GMainLoop* m_MainLoop = nullptr;                     // always null
    std::atomic<GDBusConnection*> m_Connection{nullptr}; // one reference
    unsigned int m_OwnerId = 0;
    unsigned int m_RegistrationId = 0;
    GDBusNodeInfo* m_NodeInfo = nullptr; // one reference
    TCMutex m_ServerMutex; // held by create, close and subscriptions; by a send to be counted
    std::atomic<unsigned int> m_SendingCount{0}; // sends between their gate and their end
    TCServerSignalManager m_SignalManager;
    /// @endcond

private:
    std::mutex m_SendsMutex; // sends take m_ServerMutex only under it; for the wait on their end
    std::condition_variable m_SendsEnded; // m_SendingCount has fallen to 0
};

} // namespace Velmora
