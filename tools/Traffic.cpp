#include "Traffic.h"

#include <string_view>

#include "TCServerHelper.h"

namespace Ctl {

using Velmora::TCServerHelper;

namespace {

std::string Text(const char* text)
{
    return text != nullptr ? text : "";
}

// The sender's service name, empty for a body that no service sends.
std::string ReadBody(GVariant* body, Transfer& transfer)
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
    TCServerHelper::SetTCMessage(&transfer.message, text, code, type, buffer, size);
    if (from == nullptr) {
        transfer.unreadable = body != nullptr ? g_variant_get_type_string(body) : "()";
    }
    return Text(from);
}

std::unique_ptr<Transfer> Begin(Transfer::Kind kind, const Sighting& sighting)
{
    GDBusMessage* const message = sighting.message.get();
    auto transfer = std::make_unique<Transfer>();
    transfer->kind = kind;
    transfer->time = sighting.realTime;
    transfer->sender = Text(g_dbus_message_get_sender(message));
    transfer->destination = Text(g_dbus_message_get_destination(message));
    transfer->serial = g_dbus_message_get_serial(message);
    transfer->member = Text(g_dbus_message_get_member(message));
    return transfer;
}

} // namespace

void Traffic::SetServices(const std::vector<BusService>& services)
{
    for (const BusService& service : services) {
        m_ServicesOf[service.owner].insert(service.name);
    }
}

std::unique_ptr<Transfer> Traffic::Take(const Sighting& sighting)
{
    switch (g_dbus_message_get_message_type(sighting.message.get())) {
    case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
        return TakeCall(sighting);
    case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
    case G_DBUS_MESSAGE_TYPE_ERROR:
        return TakeAnswer(sighting);
    case G_DBUS_MESSAGE_TYPE_SIGNAL:
        return TakeSignal(sighting);
    default:
        return nullptr;
    }
}

std::unique_ptr<Transfer> Traffic::TakeCall(const Sighting& sighting)
{
    GDBusMessage* const message = sighting.message.get();
    const char* const interface = g_dbus_message_get_interface(message);
    if (interface != nullptr && !IsServiceBusName(interface)) {
        return nullptr;
    }
    auto call = Begin(Transfer::Kind::Call, sighting);
    const std::string from = ReadBody(g_dbus_message_get_body(message), *call);
    call->from = !from.empty() ? from : NameOf(call->sender);
    call->to = NameOf(call->destination);
    call->subject = call->to;
    if ((g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
        m_Calls[{call->sender, call->serial}] = {sighting.monotonicTime, call->from, call->to};
    }
    return call;
}

std::unique_ptr<Transfer> Traffic::TakeAnswer(const Sighting& sighting)
{
    GDBusMessage* const message = sighting.message.get();
    const auto call = m_Calls.find(
        {Text(g_dbus_message_get_destination(message)), g_dbus_message_get_reply_serial(message)});
    if (call == m_Calls.end()) {
        return nullptr;
    }
    const char* const errorName = g_dbus_message_get_error_name(message);
    auto answer =
        Begin(errorName != nullptr ? Transfer::Kind::Error : Transfer::Kind::Reply, sighting);
    answer->serial = call->first.second;
    answer->latency = sighting.monotonicTime - call->second.monotonicTime;
    answer->to = call->second.from;
    answer->subject = call->second.to;
    if (errorName != nullptr) {
        answer->from = answer->sender == "org.freedesktop.DBus" ? answer->sender : call->second.to;
        answer->member = errorName;
        const char* text = nullptr;
        GVariant* const body = g_dbus_message_get_body(message);
        if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(s)")) != FALSE) {
            g_variant_get(body, "(&s)", &text);
        }
        answer->message.SetMessage(Text(text));
    } else {
        const std::string from = ReadBody(g_dbus_message_get_body(message), *answer);
        answer->from = !from.empty() ? from : call->second.to;
    }
    m_Calls.erase(call);
    return answer;
}

std::unique_ptr<Transfer> Traffic::TakeSignal(const Sighting& sighting)
{
    GDBusMessage* const message = sighting.message.get();
    const std::string interface = Text(g_dbus_message_get_interface(message));
    GVariant* const body = g_dbus_message_get_body(message);
    auto transfer = Begin(Transfer::Kind::Signal, sighting);
    if (transfer->sender == "org.freedesktop.DBus" && transfer->member == "NameOwnerChanged") {
        FollowOwner(body);
    }
    if (!IsServiceBusName(interface)) {
        return nullptr;
    }
    const std::string from = ReadBody(body, *transfer);
    transfer->from = !from.empty() ? from : ServiceName(interface);
    transfer->subject = ServiceName(interface);
    return transfer;
}

void Traffic::FollowOwner(GVariant* body)
{
    if (body == nullptr || g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)")) == FALSE) {
        return;
    }
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    g_variant_get(body, "(&s&s&s)", &name, &before, &after);
    if (IsServiceBusName(name)) {
        m_ServicesOf[before].erase(ServiceName(name));
        if (*after != '\0') {
            m_ServicesOf[after].insert(ServiceName(name));
        }
    }
    if (*after == '\0') { // of a connection that has gone, nothing is asked any more
        m_ServicesOf.erase(name);
        m_Calls.erase(m_Calls.lower_bound({name, 0}), m_Calls.upper_bound({name, G_MAXUINT32}));
    }
}

// The services of a connection, or the service of a bus name.
std::string Traffic::NameOf(const std::string& busName) const
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
