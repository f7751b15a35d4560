// SPDX-License-Identifier: MIT
/// @file
/// A server or a task that is open for as long as a scope.
#pragma once

#include <string>
#include <type_traits>
#include <utility>

#include "TCServer.h"
#include "TCTask.h"

namespace Velmora {

/// @cond internal
namespace Internal {
// Writes a warning if the bus has not granted the server's name a second later.
SENNET_API void WarnIfUnnamed(TCServer& server);
} // namespace Internal
/// @endcond

/// Keeps an object open for a scope. The class is a TCServer, a TCTask or both.
///
/// The scope constructs the object, creates the task, so that the first message finds its queue,
/// and then the server. When the scope ends, it closes the object in the right order, before any
/// destructor of the class runs:
///
/// 1. TCServer::CloseDBusServer(): nothing new arrives, and what was sent has left.
/// 2. TCServer::AwaitHooks(): no hook runs on another thread, and every reply has left the process.
/// 3. TCTask::Destroy(): what is queued is dispatched.
/// 4. The object is destroyed. No other thread is inside it.
///
/// The rules of both classes apply: do not begin or end a scope inside a hook of its object or on
/// its task's thread, and declare what the hooks use before it, so that it lives longer.
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
    static_assert(kIsServer || kIsTask, "TCScope is for servers and tasks");

public:
    /// Blocks like TCServer::CreateDBusServer(). The thread of a task is named after its queue. If
    /// the bus has not granted the server's name after a second, a main loop that runs on the
    /// context writes a warning.
    /// @param arguments passed to the constructor of T
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

    /// @return whether the task was started and the server is open, as returned by their creates.
    ///         The end of the scope releases what a failed create leaves.
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

    bool m_Create()
    {
        if constexpr (kIsTask) {
            if (!m_Object.TCTask::Create(Internal::QueueName(m_Object))) {
                return false;
            }
        }
        if constexpr (kIsServer) {
            if (!m_Object.TCServer::CreateDBusServer()) {
                return false;
            }
            Internal::WarnIfUnnamed(m_Object);
        }
        return true;
    }

    T m_Object;
    bool m_Created = false;
};

} // namespace Velmora
