// SPDX-License-Identifier: MIT
/// @file
/// A call with its own result, time limit and cancellation.
#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "SennetApi.h"
#include "TCMessage.h"
#include "TCServer.h"

namespace Velmora {

/// How a call has ended.
struct SENNET_API TCCallResult
{
    /// The ways in which a call ends.
    enum class Kind : std::uint8_t {
        Replied,        ///< #reply is the answer
        Refused,        ///< nothing was sent: the arguments are wrong, or the server is not open
        NoService,      ///< nobody has the name, and the bus could not start a service for it
        NoAnswer,       ///< no answer within the time limit
        Cancelled,      ///< TCCall::Cancel(), or the result could not be delivered
        AccessDenied,   ///< the policy of the bus, or the service, does not allow it
        PeerGone,       ///< the service left before it answered
        LimitsExceeded, ///< a limit of the bus, for example on calls without an answer
        BusGone,        ///< the connection to the bus is lost
        Closed,         ///< the server from which the call was sent was closed or destroyed
        Failed,         ///< #reply is an answer that contains `"dbus_result":"fail"`
        Other,          ///< any other error reply, see #errorName, or a reply of a wrong shape
    };

    TCCallResult() = default;
    /// Copies the message.
    TCCallResult(const TCCallResult& other) = default;
    /// Copies the message.
    TCCallResult& operator=(const TCCallResult& other) = default;
    TCCallResult(TCCallResult&& other) noexcept;            ///< does not copy the texts
    TCCallResult& operator=(TCCallResult&& other) noexcept; ///< does not copy the texts
    ~TCCallResult() = default;

    /// @return whether the service has replied, and not with a failure
    explicit operator bool() const { return kind == Kind::Replied; }

    Kind kind = Kind::Other; ///< how the call has ended
    TCMessage reply;         ///< the answer; empty unless the kind is Replied or Failed
    std::string text;        ///< one sentence for people; empty if the kind is Replied
    std::string errorName;   ///< the D-Bus error name, if the bus or the service sent one
};

/// @return the name of the kind, for example "NoService"
SENNET_API const char* ToString(TCCallResult::Kind kind);

/// How long a call takes at most, and where its result is delivered.
struct TCCallOptions
{
    int timeout = -1;                ///< milliseconds; -1 means 25 seconds
    TCEventIO* queue = nullptr;      ///< deliver on the thread of this queue; may end earlier
    GMainContext* context = nullptr; ///< without a queue: deliver where this context runs; a
                                     ///< reference is taken. Null: the thread-default context of
                                     ///< the thread that starts the call.
};

/// One of the calls of TCCall::All().
struct TCCallRequest
{
    std::string dest;  ///< the target's service name, as in TCServer::SendMessage()
    TCMessage message; ///< what to send
};

/// @cond internal
namespace Internal {
class CallGroup;
using CallResults = std::vector<TCCallResult>;
// The result does not go to where it was wanted.
SENNET_API void Detach(const std::shared_ptr<CallGroup>& group);
} // namespace Internal
/// @endcond

/// A call that ends exactly once with a TCCallResult, whatever happens to the service, the bus or
/// the server that sends it.
///
/// There are three ways to take the result: a callback on a queue's thread, a std::future, and in
/// C++20 a coroutine.
///
/// ~~~{.cpp}
/// m_Call.Start(m_Server, "weather", message, [this](const TCCallResult& result) {
///     if (!result) {
///         VELMORA_LOGE("no weather: %s", result.text.c_str());
///     }
/// });
///
/// const TCCallResult result = TCCall().Start(server, "weather", message, 500).get();
///
/// const TCCallResult result = co_await TCCall().Await(server, "weather", message);
/// ~~~
///
/// Starting a call runs no hook and does not wait for anything but the locks of a send. In one
/// process, the message goes through the target's queue if the target is a TCEventIO; everything
/// else goes over the bus. A message that was sent is not taken back: cancelling and the time limit
/// end the wait for its answer.
///
/// One object has one call at a time and can be used again when the callback has begun. Start() and
/// Cancel() may be called on any thread. The destructor cancels: when it has returned, the callback
/// does not run and was destroyed. It waits for a callback that runs on another thread, but not
/// inside that callback. A future or a coroutine gets Cancelled.
///
/// A queue that is destroyed, full or not ready when the result comes, or that is cleared before
/// its turn, does not get the callback: it is destroyed unrun. A coroutine is then resumed with
/// Cancelled on the library's own thread, and must not wait there.
///
/// If the server from which it was sent is closed or destroyed, the call ends with Closed; if the
/// connection to the bus is lost, with BusGone. A callback must not let an exception out.
class SENNET_API TCCall
{
public:
    /// Takes the result; valid during the call.
    using Callback = std::function<void(const TCCallResult& result)>;
    /// Takes the results in the order of the requests; valid during the call.
    using AllCallback = std::function<void(const std::vector<TCCallResult>& results)>;
    class Awaiter;
    class AllAwaiter;

    TCCall();
    ~TCCall();
    TCCall(const TCCall&) = delete;
    TCCall& operator=(const TCCall&) = delete;

    /// Starts a call whose result goes to a callback, also a call that cannot be sent.
    /// @param server sends the call; must be open
    /// @param dest the target's service name, as in TCServer::SendMessage()
    /// @param message copied
    /// @param callback called once, where `options` say; must not be empty
    /// @param options time limit, and where the callback runs
    /// @return false, with an error line, if the callback is empty or the last call of this object
    ///         has not ended; the callback is then destroyed unrun
    bool Start(TCServer& server, const char* dest, const TCMessage& message, Callback callback,
               const TCCallOptions& options = {});
    /// Starts a call whose result goes to a future, which always gets one: Refused if the last call
    /// of this object has not ended. A future needs no main loop. If this object is a temporary,
    /// `get()` in the same expression; destroying it cancels the call.
    /// @param server,dest,message as in the other Start()
    /// @param timeout milliseconds; -1 means 25 seconds
    std::future<TCCallResult> Start(TCServer& server, const char* dest, const TCMessage& message,
                                    int timeout = -1);
    /// For `co_await`, which starts the call and returns its TCCallResult where `options` say. The
    /// arguments must live until then, as they do within the expression.
    Awaiter Await(TCServer& server, const char* dest, const TCMessage& message,
                  const TCCallOptions& options = {});

    /// Starts several calls at once, with one time limit. The results come together, when the last
    /// call has ended. Otherwise like Start().
    bool All(TCServer& server, const std::vector<TCCallRequest>& requests, AllCallback callback,
             const TCCallOptions& options = {});
    /// Same as the other All(), for a future.
    std::future<std::vector<TCCallResult>>
    All(TCServer& server, const std::vector<TCCallRequest>& requests, int timeout = -1);
    /// Same as All(), for `co_await`.
    AllAwaiter AwaitAll(TCServer& server, const std::vector<TCCallRequest>& requests,
                        const TCCallOptions& options = {});

    /// Ends the call, if there is one, with Cancelled. The result is delivered like any other.
    void Cancel();

    /// @cond internal
    struct Impl; // the library's own, in src/extra/
    /// @endcond

private:
    using Resume = void (*)(void* coroutine);

    bool m_Await(TCServer& server, const char* dest, const TCMessage* message,
                 const std::vector<TCCallRequest>* requests, const TCCallOptions& options,
                 Internal::CallResults& results, std::shared_ptr<Internal::CallGroup>& group,
                 Resume resume, void* coroutine);

    const std::unique_ptr<Impl> m_Impl;
};

/// What TCCall::AwaitAll() returns, for `co_await`.
class TCCall::AllAwaiter
{
public:
    /// @cond internal
    AllAwaiter(TCCall& call, TCServer& server, const std::vector<TCCallRequest>& requests,
               const TCCallOptions& options)
        : AllAwaiter(call, server, nullptr, nullptr, &requests, options)
    {}
    ~AllAwaiter() { Internal::Detach(m_Group); } // of a coroutine that is destroyed
    AllAwaiter(const AllAwaiter&) = delete;
    AllAwaiter& operator=(const AllAwaiter&) = delete;

    [[nodiscard]] bool await_ready() const noexcept { return false; }
    // A template, so that this header needs no <coroutine>.
    template <typename Coroutine>
    bool await_suspend(Coroutine coroutine)
    {
        return m_Call.m_Await(
            m_Server, m_Dest, m_Message, m_Requests, m_Options, m_Results, m_Group,
            [](void* waiting) { Coroutine::from_address(waiting).resume(); }, coroutine.address());
    }
    std::vector<TCCallResult> await_resume() { return std::move(m_Results); }

protected:
    AllAwaiter(TCCall& call, TCServer& server, const char* dest, const TCMessage* message,
               const std::vector<TCCallRequest>* requests, const TCCallOptions& options)
        : m_Call(call), m_Server(server), m_Dest(dest), m_Message(message), m_Requests(requests),
          m_Options(options)
    {}

    Internal::CallResults m_Results; // written before the coroutine is resumed

private:
    TCCall& m_Call;
    TCServer& m_Server;
    const char* const m_Dest;
    const TCMessage* const m_Message;
    const std::vector<TCCallRequest>* const m_Requests;
    const TCCallOptions m_Options;
    std::shared_ptr<Internal::CallGroup> m_Group;
    /// @endcond
};

/// What TCCall::Await() returns, for `co_await`.
class TCCall::Awaiter : public TCCall::AllAwaiter
{
public:
    /// @cond internal
    Awaiter(TCCall& call, TCServer& server, const char* dest, const TCMessage& message,
            const TCCallOptions& options)
        : AllAwaiter(call, server, dest, &message, nullptr, options)
    {}

    TCCallResult await_resume() { return std::move(m_Results.front()); }
    /// @endcond
};

inline TCCall::Awaiter TCCall::Await(TCServer& server, const char* dest, const TCMessage& message,
                                     const TCCallOptions& options)
{
    return {*this, server, dest, message, options};
}

inline TCCall::AllAwaiter TCCall::AwaitAll(TCServer& server,
                                           const std::vector<TCCallRequest>& requests,
                                           const TCCallOptions& options)
{
    return {*this, server, requests, options};
}

} // namespace Velmora
