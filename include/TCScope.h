/// @file
/// A server or a task that is open for as long as a scope.
#pragma once

#include <string>
#include <type_traits>
#include <utility>

#include "TCServer.h"
#include "TCTask.h"

namespace Velmora {

/// Makes and creates an object of a class that is a TCServer, a TCTask or both, and at the end of
/// the scope closes it in the right order while its class is still whole:
///
/// 1. CloseDBusServer(): nothing new arrives, what was sent has left.
/// 2. AwaitHooks(): no hook runs on another thread, and none starts; moved messages that were not
///    handled have got the error reply, and every answer has left the process.
/// 3. TCTask::Destroy(): what is queued is dispatched.
/// 4. The object is destroyed. Its destructor has nothing to close, and no other thread is in it.
///
/// The task is created before the server, so that the first message finds its queue. The rules of
/// both classes hold: a scope neither begins nor ends inside a hook of its object nor on its task's
/// thread, and what the hooks use lives longer, that is, is declared before it.
///
/// ~~~{.cpp}
/// TCScope<Worker> worker(argument);
/// if (!worker) {
///     return 1;
/// }
/// worker->SendSignal("ready", &message);
/// ~~~
template <typename T>
class TCScope
{
    static constexpr bool kIsServer = std::is_base_of_v<TCServer, T>;
    static constexpr bool kIsTask = std::is_base_of_v<TCTask, T>;
    static_assert(kIsServer || kIsTask, "only a server or a task is created and closed");

public:
    /// Blocks as TCServer::CreateDBusServer() does. The thread of a task gets its queue's name.
    /// @param arguments for the constructor of T
    template <typename... Arguments>
    explicit TCScope(Arguments&&... arguments)
        : TCScope(Constructed(), std::forward<Arguments>(arguments)...)
    {
        m_Created = m_Create(); // if it throws, the destructor closes
    }
    ~TCScope()
    {
        if constexpr (kIsServer) {
            m_Object.TCServer::CloseDBusServer();
            m_Object.TCServer::AwaitHooks();
        }
        if constexpr (kIsTask) {
            m_Object.TCTask::Destroy();
        }
    }
    TCScope(const TCScope&) = delete;
    TCScope& operator=(const TCScope&) = delete;

    /// @return whether the task was started and the server is open, as their creates have told.
    ///         What a failed one leaves is released at the end of the scope.
    explicit operator bool() const { return m_Created; }

    /// @return the object, open or not
    T* operator->() { return &m_Object; }
    /// @return the object, open or not
    T& operator*() { return m_Object; }

private:
    struct Constructed
    {};
    template <typename... Arguments>
    explicit TCScope(Constructed /*tag*/, Arguments&&... arguments)
        : m_Object(std::forward<Arguments>(arguments)...)
    {}

    // Never made: only reaches what a task keeps for its subclasses.
    struct TaskName : TCTask
    {
        static const char* Of(const TCTask& task) { return (task.*&TaskName::m_Name).c_str(); }
    };

    bool m_Create()
    {
        if constexpr (kIsTask) {
            if (!m_Object.TCTask::Create(TaskName::Of(m_Object))) {
                return false;
            }
        }
        if constexpr (kIsServer) {
            return m_Object.TCServer::CreateDBusServer();
        }
        return true;
    }

    T m_Object;
    bool m_Created = false;
};

} // namespace Velmora
