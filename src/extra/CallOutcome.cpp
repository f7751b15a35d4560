// SPDX-License-Identifier: MIT
#include "extra/CallOutcome.h"

#include <new>
#include <utility>

#include "BusBody.h"
#include "GLibPtr.h"

namespace Velmora {

using namespace Internal;

namespace {

using Kind = TCCallResult::Kind;

void Move(TCMessage& from, TCMessage& to)
{
    static_cast<TCData&>(to) = static_cast<TCData&&>(from);
    to.m_Code = from.m_Code;
    to.m_Type = std::move(from.m_Type);
    unsigned char* bytes = nullptr;
    const unsigned int size = from.GetBuffer(bytes);
    to.SetBuffer(bytes, size);
}

struct NamedError
{
    const char* name;
    Kind kind;
};

constexpr NamedError kErrors[] = {
    {"org.freedesktop.DBus.Error.ServiceUnknown", Kind::NoService},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", Kind::NoService},
    {"org.freedesktop.DBus.Error.AccessDenied", Kind::AccessDenied},
    {"org.freedesktop.DBus.Error.AuthFailed", Kind::AccessDenied},
    {"org.freedesktop.DBus.Error.LimitsExceeded", Kind::LimitsExceeded},
    {"org.freedesktop.DBus.Error.Disconnected", Kind::PeerGone},
};

// D-Bus protocol, "Message Bus Starting Services": the bus could not start the service.
constexpr char kSpawn[] = "org.freedesktop.DBus.Error.Spawn.";

bool IsFromBus(GDBusMessage* message)
{
    return g_strcmp0(g_dbus_message_get_sender(message), "org.freedesktop.DBus") == 0;
}

Kind KindOf(const CallOutcome& outcome, const std::string& error)
{
    // The bus answers this for a peer that has left, and after a time limit of its own.
    if (error == "org.freedesktop.DBus.Error.NoReply" && IsFromBus(outcome.message.get())) {
        return outcome.ownerLeft ? Kind::PeerGone : Kind::NoAnswer;
    }
    if (error.compare(0, sizeof kSpawn - 1, kSpawn) == 0 ||
        (error == "org.freedesktop.DBus.Error.TimedOut" && IsFromBus(outcome.message.get()))) {
        return Kind::NoService;
    }
    for (const NamedError& known : kErrors) {
        if (error == known.name) {
            return known.kind;
        }
    }
    return Kind::Other;
}

void NoteReply(TCCallResult& result)
{
    result.kind = Kind::Replied;
    if (SaysFail(result.reply)) {
        result.kind = Kind::Failed;
        result.text = "the service reports a failure: " + result.reply.GetString();
    }
}

void TakeError(const CallOutcome& outcome, TCCallResult& result)
{
    GError* raw = nullptr;
    if (const char* const name = g_dbus_message_get_error_name(outcome.message.get());
        name != nullptr) {
        result.errorName = name;
    }
    g_dbus_message_to_gerror(outcome.message.get(), &raw);
    const ErrorPtr error(raw);
    result.kind = KindOf(outcome, result.errorName);
    if (error) {
        g_dbus_error_strip_remote_error(error.get());
        result.text = error->message;
    }
}

void TakeReply(GDBusMessage* message, TCCallResult& result)
{
    GVariant* const body = g_dbus_message_get_body(message);
    const ParsedBody parsed = body != nullptr ? ParseBody(body) : ParsedBody();
    if (parsed.from == nullptr) {
        result.kind = Kind::Other;
        result.text = "the reply does not have the shape of a message";
        return;
    }
    parsed.CopyInto(result.reply);
    NoteReply(result);
}

} // namespace

TCCallResult::TCCallResult(TCCallResult&& other) noexcept
    : kind(other.kind), text(std::move(other.text)), errorName(std::move(other.errorName))
{
    Move(other.reply, reply);
}

TCCallResult& TCCallResult::operator=(TCCallResult&& other) noexcept
{
    if (this != &other) {
        kind = other.kind;
        text = std::move(other.text);
        errorName = std::move(other.errorName);
        Move(other.reply, reply);
    }
    return *this;
}

const char* ToString(TCCallResult::Kind kind)
{
    static constexpr const char* names[] = {
        "Replied",  "Refused",        "NoService", "NoAnswer", "Cancelled", "AccessDenied",
        "PeerGone", "LimitsExceeded", "BusGone",   "Closed",   "Failed",    "Other",
    };
    const auto index = static_cast<std::size_t>(kind);
    return index < std::size(names) ? names[index] : "unknown";
}

CallOutcome::CallOutcome(const TCMessage* itsReply)
    : kind(Kind::Replied), reply(std::make_shared<TCMessage>())
{
    if (itsReply != nullptr) {
        *reply = *itsReply;
    } else {
        SetErrorReply(*reply);
    }
}

CallOutcome::CallOutcome(GDBusMessage* itsMessage, bool ownerHasLeft)
    : kind(Kind::Other),
      message(static_cast<GDBusMessage*>(g_object_ref(itsMessage)), g_object_unref),
      ownerLeft(ownerHasLeft)
{}

TCCallResult Internal::MakeResult(const CallOutcome& outcome)
try {
    TCCallResult result;
    result.kind = outcome.kind;
    result.text = outcome.text;
    if (outcome.reply != nullptr) {
        Move(*outcome.reply, result.reply);
        NoteReply(result);
    } else if (outcome.message != nullptr &&
               g_dbus_message_get_message_type(outcome.message.get()) ==
                   G_DBUS_MESSAGE_TYPE_ERROR) {
        TakeError(outcome, result);
    } else if (outcome.message != nullptr) {
        TakeReply(outcome.message.get(), result);
    }
    return result;
} catch (const std::bad_alloc&) {
    TCCallResult result;
    result.text = "out of memory";
    return result;
}

} // namespace Velmora
