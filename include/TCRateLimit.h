// SPDX-License-Identifier: MIT
/// @file
/// A limit on the messages of each caller.
#pragma once

#include <cstdint>
#include <memory>

#include "SennetApi.h"

namespace Velmora {

/// A token bucket for each caller of a service.
///
/// Each message takes a token. A bucket holds `burst` tokens at most and gains `perSecond` tokens a
/// second. Ask it in a hook. In TCServer::IfTransferMessage(), callers beyond their limit can be
/// moved to a queue of their own, so that they only delay each other:
///
/// ~~~{.cpp}
/// bool IfTransferMessage(const char*, const TCMessage*, TCEventIO*& target) override
/// {
///     target = m_Limit.Take() ? &m_Worker : &m_SlowLane;
///     return true;
/// }
/// ~~~
///
/// The last 256 callers are remembered; a forgotten one begins with a full bucket. Any thread.
class SENNET_API TCRateLimit
{
public:
    /// What counts as one caller.
    enum class Per : std::uint8_t {
        User,      ///< all connections of a user: a caller cannot connect again for new tokens
        Connection ///< each connection to the bus
    };

    /// @param perSecond tokens gained in a second; negative counts as 0
    /// @param burst tokens that a bucket holds, and begins with; at least 1
    /// @param per what counts as one caller. This process is one caller.
    TCRateLimit(double perSecond, unsigned int burst, Per per = Per::User);
    ~TCRateLimit();
    TCRateLimit(const TCRateLimit&) = delete;
    TCRateLimit& operator=(const TCRateLimit&) = delete;

    /// Takes a token of the caller whose hook runs on this thread. With Per::User, the first
    /// message of a connection may block as in TCCaller::Current().
    /// @return false if the bucket is empty or, with an error line, if no hook runs here
    bool Take();

private:
    struct Impl;
    const std::unique_ptr<Impl> m_Impl;
};

} // namespace Velmora
