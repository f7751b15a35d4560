// SPDX-License-Identifier: MIT
#include "MessageDecoder.h"

#include "ServiceNames.h"
#include "TCServerHelper.h"

namespace Ctl {

using Velmora::TCServerHelper;

namespace {

constexpr char kBusDaemon[] = "org.freedesktop.DBus";

std::string StringOrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

// Decodes the body into `decoded`. Returns the sender's service name, or "" if the body does not
// have a type that the library sends.
std::string DecodeBody(GVariant* body, MonitoredMessage& decoded)
{
    char* from = nullptr;
    char* type = nullptr;
    char* text = nullptr;
    unsigned char* buffer = nullptr;
    unsigned int code = 0;
    unsigned int size = 0;
    if (body != nullptr) {
        TCServerHelper::AnalyseServerMsg(body, &from, &code, &type, &text, &buffer, &size);
    }
    const std::unique_ptr<char[]> ownFrom(from);
    const std::unique_ptr<char[]> ownType(type);
    const std::unique_ptr<char[]> ownText(text);
    const std::unique_ptr<unsigned char[]> ownBuffer(buffer);
    TCServerHelper::SetTCMessage(&decoded.content, text, code, type, buffer, size);
    if (from == nullptr) {
        decoded.unknownBodyType = body != nullptr ? g_variant_get_type_string(body) : "()";
    }
    return StringOrEmpty(from);
}

std::unique_ptr<MonitoredMessage> DecodeHeader(MonitoredMessage::Kind kind,
                                               const CapturedMessage& captured)
{
    GDBusMessage* const message = captured.message.get();
    auto decoded = std::make_unique<MonitoredMessage>();
    decoded->kind = kind;
    decoded->time = captured.realTime;
    decoded->sender = StringOrEmpty(g_dbus_message_get_sender(message));
    decoded->destination = StringOrEmpty(g_dbus_message_get_destination(message));
    decoded->serial = g_dbus_message_get_serial(message);
    decoded->member = StringOrEmpty(g_dbus_message_get_member(message));
    return decoded;
}

} // namespace

void MessageDecoder::SetServices(const std::vector<BusService>& services)
{
    for (const BusService& service : services) {
        m_ServicesOf[service.owner].insert(service.name);
    }
}

std::unique_ptr<MonitoredMessage> MessageDecoder::Decode(const CapturedMessage& captured)
{
    switch (g_dbus_message_get_message_type(captured.message.get())) {
    case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
        return DecodeCall(captured);
    case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
    case G_DBUS_MESSAGE_TYPE_ERROR:
        return DecodeReply(captured);
    case G_DBUS_MESSAGE_TYPE_SIGNAL:
        return DecodeSignal(captured);
    default:
        return nullptr;
    }
}

std::unique_ptr<MonitoredMessage> MessageDecoder::DecodeCall(const CapturedMessage& captured)
{
    GDBusMessage* const message = captured.message.get();
    const char* const interface = g_dbus_message_get_interface(message);
    if (interface != nullptr && !IsServiceBusName(interface)) {
        return nullptr;
    }
    auto call = DecodeHeader(MonitoredMessage::Kind::Call, captured);
    const std::string from = DecodeBody(g_dbus_message_get_body(message), *call);
    call->from = !from.empty() ? from : NameOf(call->sender);
    call->to = NameOf(call->destination);
    call->subject = call->to;
    if ((g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
        m_PendingCalls[{call->sender, call->serial}] = {captured.monotonicTime, call->from,
                                                        call->to};
    }
    return call;
}

std::unique_ptr<MonitoredMessage> MessageDecoder::DecodeReply(const CapturedMessage& captured)
{
    GDBusMessage* const message = captured.message.get();
    const auto call = m_PendingCalls.find({StringOrEmpty(g_dbus_message_get_destination(message)),
                                           g_dbus_message_get_reply_serial(message)});
    if (call == m_PendingCalls.end()) {
        return nullptr;
    }
    const char* const errorName = g_dbus_message_get_error_name(message);
    auto reply = DecodeHeader(errorName != nullptr ? MonitoredMessage::Kind::Error
                                                   : MonitoredMessage::Kind::Reply,
                              captured);
    reply->serial = call->first.second;
    reply->latency = captured.monotonicTime - call->second.monotonicTime;
    reply->to = call->second.from;
    reply->subject = call->second.to;
    if (errorName != nullptr) {
        reply->from = reply->sender == kBusDaemon ? reply->sender : call->second.to;
        reply->member = errorName;
        const char* text = nullptr;
        GVariant* const body = g_dbus_message_get_body(message);
        if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(s)")) != FALSE) {
            g_variant_get(body, "(&s)", &text);
        }
        reply->content.SetMessage(StringOrEmpty(text));
    } else {
        const std::string from = DecodeBody(g_dbus_message_get_body(message), *reply);
        reply->from = !from.empty() ? from : call->second.to;
    }
    m_PendingCalls.erase(call);
    return reply;
}

std::unique_ptr<MonitoredMessage> MessageDecoder::DecodeSignal(const CapturedMessage& captured)
{
    GDBusMessage* const message = captured.message.get();
    const std::string interface = StringOrEmpty(g_dbus_message_get_interface(message));
    GVariant* const body = g_dbus_message_get_body(message);
    auto signal = DecodeHeader(MonitoredMessage::Kind::Signal, captured);
    if (signal->sender == kBusDaemon && signal->member == "NameOwnerChanged") {
        UpdateOwner(body);
    }
    if (!IsServiceBusName(interface)) {
        return nullptr;
    }
    const std::string from = DecodeBody(body, *signal);
    signal->from = !from.empty() ? from : ServiceName(interface);
    signal->subject = ServiceName(interface);
    return signal;
}

void MessageDecoder::UpdateOwner(GVariant* nameOwnerChanged)
{
    if (nameOwnerChanged == nullptr ||
        g_variant_is_of_type(nameOwnerChanged, G_VARIANT_TYPE("(sss)")) == FALSE) {
        return;
    }
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    g_variant_get(nameOwnerChanged, "(&s&s&s)", &name, &oldOwner, &newOwner);
    if (IsServiceBusName(name)) {
        m_ServicesOf[oldOwner].erase(ServiceName(name));
        if (*newOwner != '\0') {
            m_ServicesOf[newOwner].insert(ServiceName(name));
        }
    }
    if (*newOwner == '\0') { // a closed connection receives no more replies
        m_ServicesOf.erase(name);
        m_PendingCalls.erase(m_PendingCalls.lower_bound({name, 0}),
                             m_PendingCalls.upper_bound({name, G_MAXUINT32}));
    }
}

// The services that a unique name owns, or the service of a well-known name.
std::string MessageDecoder::NameOf(const std::string& busName) const
{
    const auto services = m_ServicesOf.find(busName);
    if (services == m_ServicesOf.end() || services->second.empty()) {
        return ServiceName(busName);
    }
    std::string names;
    for (const std::string& service : services->second) {
        names += (names.empty() ? "" : ",") + service;
    }
    return names;
}

} // namespace Ctl
