/// @file
/// A named endpoint on the system message bus.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <gio/gio.h>

#include "TCEventIO.h"
#include "TCMessage.h"
#include "TCServerHelper.h"
#include "TCServerSignalManager.h"

#pragma GCC visibility push(default)

namespace Velmora {

namespace Internal {
class HookScope;
struct Life;
} // namespace Internal

/// One endpoint on the D-Bus system bus: sends messages to services by their names, receives
/// messages in its hooks, broadcasts and receives signals.
///
/// Order of use: construct; CreateDBusServer(); run a main loop on the context of that thread; send
/// and subscribe; CloseDBusServer(); AwaitHooks(); destruct. Create and close may be repeated.
///
/// Names. The service name is what clients pass around. The bus name, which is also the interface
/// name, is the service name with ".message" behind it, for an activity with its owner's name and a
/// "." before it; all but ASCII letters, digits, "." and "_" becomes "_".
///
/// Threads. The hooks of this class and signal callbacks run on the bus dispatch thread: whichever
/// thread runs a main loop on the context that was thread-default where CreateDBusServer() or
/// SubscribeSignal() was called, which is the global default context unless the client has pushed
/// one; for IfMessageReplied() the context that was thread-default where SendMessage() was called.
/// Without such a loop no hook runs, and what arrives piles up. A send inside one process runs the
/// target's IfMessageReceived() on the calling thread, several at once if several threads send. A
/// call that IfTransferMessage() gives to a queue runs there one after the other; but one that
/// finds the queue full runs on the dispatch thread, at the same time as another on the queue's. A
/// hook that throws on the dispatch thread ends the process.
///
/// Lifetime. A server takes callbacks from its first create on. Whatever arrives for one that has
/// been destroyed touches nothing, not even another one at the same address, and the destructor
/// waits for hooks that run on other threads. But by then the derived class is gone: a
/// derived class whose hooks run on other threads calls AwaitHooks() between the close and its own
/// destruction, its destructor's first line at the latest. A hook must not destroy its own server,
/// and not two hooks of one server may call AwaitHooks() at once: they would wait for each other.
///
/// What may overlap. On one server, sends, subscriptions, create, close and AwaitHooks() may be
/// called on any threads at once; a send that finds a create, a close or a subscription at work for
/// more than a millisecond gives false ("Server is going to be closed!"). A subscription waits for
/// a create or a close on another thread; but inside a send of the server (in a hook that a send
/// within the process runs) it returns false, with an error line, once a close waits for that send,
/// and so does AwaitHooks(). IsServiceAvailable() must not overlap a close. Nothing may overlap the
/// destructor.
///
/// What the bus cannot carry is refused with false and an error line: text and type that are not
/// UTF-8 or hold a NUL, names that are not legal on D-Bus, and messages over the bus's limit of
/// 32 MiB (as the library is built by default), in which a buffer takes eight bytes a byte: some
/// 4 MiB of it. A reply of that kind is replaced by the error reply. An illegal signal name, and a
/// signal of a proxy, are refused with a debug line alone.
class __attribute__((visibility("default"))) TCServer
{
public:
    /// The kinds of server.
    enum TCServerType : std::uint32_t {
        SERVER_TYPE_SERVICE = 0, ///< the service of the process; at most one is open
        SERVER_TYPE_ACTIVITY,    ///< a sub-service of the process; any number
        SERVER_TYPE_PROXY        ///< can send messages and subscribe; has no name and no signals
    };

    /// Touches no bus.
    /// @param name the service name, in UTF-8. With another one the server opens, since its bus
    /// name
    ///             is made legal, but every send and every answer of it is refused: each carries
    ///             the name.
    /// @param type fixed for good
    TCServer(std::string name, TCServerType type);

    /// Waits for hooks on other threads, and closes nothing: CloseDBusServer() comes first.
    virtual ~TCServer();
    TCServer(const TCServer&) = delete;
    TCServer& operator=(const TCServer&) = delete;

    /// Connects to the system bus and, for a service or an activity, requests the name, exports the
    /// object and enters the server among those of the process. Whether the bus grants the name
    /// shows later: the signal "service_start_default" goes out when it does.
    /// Blocks until the bus is reached, and fails within 60 seconds if it does not answer. All
    /// servers of the process share GDBus's connection to the system bus. Where the bus has dropped
    /// that, while another part of the process still holds it, they share one of the library's own.
    /// Do not call it inside a send of this server: after a failed create it waits for those.
    /// @return whether the server is open; what a failed call leaves is released by the next one or
    ///         by CloseDBusServer()
    bool CreateDBusServer();

    /// The same operation: what is made is decided by the type.
    bool CreateDBusProxy();

    /// Closes whatever the server holds, in any state. Waits for sends of this server that are
    /// under way; those that come meanwhile are refused. Blocks until what was sent and answered
    /// has left the process: on a bus that takes nothing for 5 seconds, after which an error line
    /// says that something is left unsent, besides 25 seconds for giving up the name. Do not call
    /// it inside a send of this server, nor where such a send waits for this thread.
    void CloseDBusServer();

    /// The same operation.
    void CloseDBusProxy();

    /// For a closed server: waits until no hook or callback of it runs on another thread, and lets
    /// none start before the next create. Late replies, moved messages and signals are dropped,
    /// calls that are not handled yet get the error reply; one that no main loop has dispatched yet
    /// gets an error from GDBus when the loop goes on. When this returns, every answer has left the
    /// process, within the limits of CloseDBusServer(). May be called inside a hook, for whose own
    /// end it does not wait.
    /// @return false, with an error line, on a server that is not closed, and inside a send of it
    ///         for which a close waits
    bool AwaitHooks();

    /// Writes an error line: a server has no loop of its own.
    /// @return null
    GMainLoop* GetMainLoop();

    /// Asks the bus whether a service has an owner, and blocks for up to the bus's timeout. An
    /// activity is asked for as "owner.activity".
    bool IsServiceAvailable(const char* serviceName);

    /// Sends a message to a service. Any thread.
    ///
    /// Inside one process a synchronous send calls the target's hook on the calling thread, and an
    /// asynchronous one without a reply goes through the target's queue if the target is a
    /// TCEventIO; everything else goes over the bus.
    ///
    /// What goes through a queue is sent once more when its turn has come, on the queue's thread,
    /// as a synchronous send from the same sender, and what becomes of that is told to nobody. So
    /// true means accepted, not handled:
    /// - A proxy is not found then, and all of its messages are dropped. So are those of a sender
    ///   that has been closed meanwhile, or is just being closed, created or subscribed.
    /// - A target that has been closed meanwhile is looked for on the bus: the message leaves as a
    ///   synchronous call, for whose answer, or timeout, the queue's thread waits.
    ///
    /// Where a message must not get lost, ask for a reply, which takes it over the bus; or close
    /// sender and target only after the queue has run empty: SendSyncEvent() or RunAndWait() to the
    /// target returns when all that was queued before it has been handled.
    /// @param dest the target's service name; an activity of another process is "owner.activity"
    /// @param message stays the caller's and unchanged
    /// @param sync true waits for the answer
    /// @param reply synchronous: receives the answer, not null. Asynchronous: not null asks for
    ///              IfMessageReplied(); the object is not used
    /// @param timeout of a synchronous call over the bus in milliseconds, -1 for GDBus's default
    /// @return synchronous: whether an answer came that does not say `"dbus_result":"fail"`;
    ///         asynchronous: whether the message was handed on. False comes with a log line.
    bool SendMessage(const char* dest, const TCMessage* message, bool sync, TCMessage* reply,
                     int timeout = -1);

    /// SendMessage() of the server of this process with the service name `server`.
    static bool SendMessage(const char* server, const char* dest, const TCMessage* message,
                            bool sync, TCMessage* reply);

    /// Broadcasts a signal. Any thread.
    /// @param signalName a D-Bus member name
    /// @param message copied; may be null
    /// @return whether it was handed to the bus
    bool SendSignal(const char* signalName, const TCMessage* message);

    /// SendSignal() of the server of this process with the service name `source`.
    static bool SendSignal(const char* source, const char* signalName, const TCMessage* message);

    /// Subscribes to a signal until UnSubscribeSignal() or the close. Any thread; see above for the
    /// thread of the callback.
    /// @param from the sender's service name; null means anyone
    /// @param signal the signal's name
    /// @param callback null gives the signal to IfMessageReceived()
    /// @param userData handed to the callback
    /// @return true if subscribed, or subscribed before, when the first callback stays; false
    ///         without an open connection or for a name that is not legal on D-Bus. The bus does
    ///         not tell when its limit of match rules is reached (512 a process on the reference
    ///         daemon): what is beyond it is never delivered.
    bool SubscribeSignal(const char* from, const char* signal, TCSignalCallback callback,
                         void* userData);

    /// SubscribeSignal() of the server of this process with the service name `source`; `from` is
    /// not null here.
    static bool SubscribeSignal(const char* source, const char* from, const char* signal,
                                TCSignalCallback callback, void* userData);

    /// Ends a subscription that was made with a `from`; one without ends at the close. A callback
    /// that has begun on the dispatch thread runs on: callback and userData stay valid until that
    /// thread is known to be past it, or until the close and AwaitHooks().
    /// @return false without an open connection or a `from`; true also for what was not subscribed
    bool UnSubscribeSignal(const char* from, const char* signal);

    /// UnSubscribeSignal() of the server of this process with the service name `source`.
    static bool UnSubscribeSignal(const char* source, const char* from, const char* signal);

    /// Answers false: key signals do not exist.
    bool SubscribeKeySignal(const char* name, const char* key, TCSignalCallback callback,
                            void* userData);
    /// Answers false.
    static bool SubscribeKeySignal(const char* source, const char* name, const char* key,
                                   TCSignalCallback callback, void* userData);
    /// Answers false.
    bool UnSubscribeKeySignal(const char* name, const char* key);
    /// Answers false.
    static bool UnSubscribeKeySignal(const char* source, const char* name, const char* key);

    /// @return the open server of this process with that service name, which lives as long as the
    ///         client keeps it; null, with a log line, if there is none
    static TCServer* m_GetDbusServer(const char* source);

    /// @return the bus name of a service: that of the open server of this process, or the name with
    ///         ".message" behind it, made legal
    static std::string m_GetDBusName(std::string name);

    /// The open servers of this process but proxies, by service name. It owns nothing. The library
    /// guards it with a lock of its own: clients read it only where no server is opened or closed.
    static std::map<std::string, TCServer*> m_CreatedDbusServers;

    /// What GDBus calls for the exported object.
    static const GDBusInterfaceVTable m_gVTable;

protected:
    /// For subclasses: says where an inbound call is handled. Runs on the bus dispatch thread.
    /// @param from,message as in IfMessageReceived()
    /// @param target
    ///        set it to a queue and return true to have IfMessageReceived() run on the thread of
    ///        that queue's loop. The queue lives until this hook's server is closed and has had
    ///        AwaitHooks(). One that takes no events leaves the call to the dispatch thread.
    virtual bool IfTransferMessage(const char* from, const TCMessage* message, TCEventIO*& target);

    /// For subclasses: handles a message or a signal. Arguments live for the length of the call.
    /// @param from the sender's service name by its own claim; null for a body of unknown shape
    /// @param message what the sender has sent
    /// @param reply to be filled; its content is the answer. Thrown away for a signal.
    /// @param signalName null for a message, the name for a signal that has no callback
    /// @return not looked at
    virtual bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                                   const char* signalName);

    /// For subclasses: the answer to an asynchronous send with a reply; not called for an answer
    /// with neither text, type nor buffer, nor for a call that failed.
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
    std::atomic<bool> m_SendsAwaited{false}; ///< somebody waits for sends; under #m_SendsMutex
    const std::string m_ServiceName;
    std::string m_DBusName;
    std::string m_ObjectPath;
    GMainLoop* m_MainLoop = nullptr;                     ///< always null
    std::atomic<GDBusConnection*> m_Connection{nullptr}; ///< one reference
    unsigned int m_OwnerId = 0;
    unsigned int m_RegistrationId = 0;
    GDBusNodeInfo* m_NodeInfo = nullptr; ///< one reference
    TCMutex m_ServerMutex; ///< held by create, close and subscriptions; by a send to be counted
    std::atomic<unsigned int> m_SendingCount{0}; ///< sends between their gate and their end
    TCServerSignalManager m_SignalManager;
    /// @endcond

private:
    struct [[gnu::visibility("hidden")]] Callbacks;
    class [[gnu::visibility("hidden")]] MovedCall;
    class [[gnu::visibility("hidden")]] OperationLock;
    struct [[gnu::visibility("hidden")]] PendingReply;
    class [[gnu::visibility("hidden")]] SendGate;

    [[gnu::visibility("hidden")]] static Internal::HookScope m_EnterEntry(const std::string& name,
                                                                          TCServer* entry);
    [[gnu::visibility("hidden")]] static Internal::HookScope m_EnterServer(const char* source,
                                                                           std::string* busName);
    [[gnu::visibility("hidden")]] static Internal::HookScope m_RequireServer(const char* source);

    [[gnu::visibility("hidden")]] bool m_IsConnected() const;
    [[gnu::visibility("hidden")]] bool m_Open(GDBusConnection* connection,
                                              const Internal::Life& life);
    [[gnu::visibility("hidden")]] static std::string m_FindService();
    [[gnu::visibility("hidden")]] bool m_CheckNames(std::string& owner, bool enter);
    [[gnu::visibility("hidden")]] bool m_FormBusName();
    [[gnu::visibility("hidden")]] bool m_OwnNameAndExport(GDBusConnection* connection,
                                                          const Internal::Life& life);
    [[gnu::visibility("hidden")]] void m_OwnName(GDBusConnection* connection,
                                                 const Internal::Life& life);
    [[gnu::visibility("hidden")]] void m_ExportObject(GDBusConnection* connection,
                                                      const Internal::Life& life);
    [[gnu::visibility("hidden")]] bool m_SendStartSignal();
    [[gnu::visibility("hidden")]] void m_AwaitSends();
    [[gnu::visibility("hidden")]] void m_ReleaseBus();
    [[gnu::visibility("hidden")]] bool m_SendDirect(TCServer& target, const TCMessage* message,
                                                    TCMessage* reply) const;
    [[gnu::visibility("hidden")]] bool m_SendAsEvent(TCServer& target, const char* dest,
                                                     const TCMessage* message) const;
    [[gnu::visibility("hidden")]] bool m_SendOverBus(const char* dest, std::string target,
                                                     const TCMessage* message, bool sync,
                                                     TCMessage* reply, int timeout);

    std::mutex m_SendsMutex; ///< sends take m_ServerMutex only under it; for the wait on their end
    std::condition_variable m_SendsEnded; ///< m_SendingCount has fallen to 0
};

/// TCServer::SendMessage() of the server of this process with the service name `server`.
bool SendMessage(const char* server, const char* dest, const TCMessage* message, bool sync,
                 TCMessage* reply);
/// TCServer::SendSignal() of the server of this process with the service name `source`.
bool SendSignal(const char* source, const char* signalName, const TCMessage* message);
/// TCServer::SubscribeSignal() of the server of this process with the service name `source`.
bool SubscribeSignal(const char* source, const char* from, const char* signal,
                     TCSignalCallback callback, void* userData);
/// TCServer::UnSubscribeSignal() of the server of this process with the service name `source`.
bool UnSubscribeSignal(const char* source, const char* from, const char* signal);
/// Answers false: key signals do not exist.
bool SubscribeKeySignal(const char* source, const char* name, const char* key,
                        TCSignalCallback callback, void* userData);
/// Answers false: key signals do not exist.
bool UnSubscribeKeySignal(const char* source, const char* name, const char* key);

} // namespace Velmora

#pragma GCC visibility pop
