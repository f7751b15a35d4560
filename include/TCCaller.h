// SPDX-License-Identifier: MIT
/// @file
/// Who has sent the message that a hook handles.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "SennetApi.h"

namespace Velmora {

/// @cond internal
namespace Internal {
struct Credentials;
} // namespace Internal
/// @endcond

/// The sender of a message or signal, as the bus knows it. The `from` of a hook is only what the
/// sender claims; this is what authorisation may rely on.
///
/// ~~~{.cpp}
/// bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
///                        const char* signalName) override
/// {
///     const TCCaller caller = TCCaller::Current();
///     if (caller.User() != 0 && !caller.IsInGroup(m_Operators)) {
///         reply->m_Json["dbus_result"] = "fail";
///         reply->m_Json["errmsg"] = "not allowed";
///         return false;
///     }
///     ...
/// ~~~
///
/// The library asks the bus once for each connection that sends, and remembers the last 256 of
/// them. An object is a copy: it may be kept and used on any thread.
class SENNET_API TCCaller
{
public:
    /// The sender of the message whose TCServer::IfMessageReceived(), IfTransferMessage() or signal
    /// callback runs on this thread. Blocks for the answer of the bus to the first message of a
    /// connection, for at most 5 seconds.
    /// @return a caller of which nothing is known if no hook runs here
    static TCCaller Current();

    /// @return whether a hook was running, so that there is a caller
    explicit operator bool() const { return m_Exists; }
    /// @return whether the message came from this process without the bus
    bool IsLocal() const { return m_Local; }
    /// @return whether the sender waits for an answer; false for a signal
    bool WantsAnswer() const { return m_WantsAnswer; }

    /// @return the unique name of the sender's connection, for example ":1.42"; empty if local
    const std::string& UniqueName() const { return m_UniqueName; }
    /// @return the effective user when the sender has connected; empty if the bus does not tell or
    ///         the sender has left. Compare it with a value, so that an unknown user is denied.
    std::optional<uid_t> User() const;
    /// @return the process that has connected. For logs only, never for authorisation: the process
    ///         may have ended, and another one may have its number.
    std::optional<pid_t> Process() const;
    /// @return all groups of the sender when it has connected; empty if the bus does not tell
    std::vector<gid_t> Groups() const;
    /// @return whether the sender is known to be in the group
    bool IsInGroup(gid_t group) const;
    /// @return the label of the Linux security module; empty if the bus does not tell
    std::string SecurityLabel() const;

private:
    bool m_Exists = false;
    bool m_Local = false;
    bool m_WantsAnswer = false;
    std::string m_UniqueName;
    std::shared_ptr<const Internal::Credentials> m_Credentials; // null if unknown
};

} // namespace Velmora
