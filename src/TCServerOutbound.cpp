// Messages of a client, by one of three routes: a call inside the process, an event to a queue of
// the process, or a call over the bus.
#include <memory>
#include <new>
#include <utility>

#include "BusBody.h"
#include "LiveServers.h"
#include "TCServer.h"
#include "TCServerGate.h"
#include "TransferDelivery.h"

namespace Velmora {

using namespace Internal;

namespace {

const char* MethodFor(const BusBody& body)
{
    return body.HasBuffer() ? "SendMessageWithBuffer" : "SendMessage";
}

// An answer that is no object, or has another type of value there, has no result to look at.
bool SaysFail(const TCMessage& reply)
{
    if (!reply.m_Json.isObject()) {
        return false;
    }
    const Json::Value& result = reply.m_Json["dbus_result"];
    return result.isString() && result.asString() == "fail";
}

// A name of an event that a client may have built: empty, and so nobody's, if it is no string.
std::string NameIn(const Json::Value& names, const char* key)
{
    const Json::Value name = names.isObject() ? names[key] : Json::Value();
    return name.isConvertibleTo(Json::stringValue) ? name.asString() : "";
}

} // namespace

// The reply to an asynchronous call may come when its server is gone and another one has taken its
// place in memory, too.
struct TCServer::PendingReply
{
    TCServer* server;
    Life life;

    static void Deliver(GObject* source, GAsyncResult* result, void* data)
    {
        // From the call that asked for the reply.
        const std::unique_ptr<PendingReply> pending(static_cast<PendingReply*>(data));
        const HookScope alive(pending->life);
        if (alive) {
            m_PendingCallNotify(source, result, pending->server);
        }
    }
};

bool TCServer::SendMessage(const char* server, const char* dest, const TCMessage* message,
                           bool sync, TCMessage* reply)
{
    const HookScope sender = m_RequireServer(server);
    return sender && sender->SendMessage(dest, message, sync, reply);
}

bool TCServer::SendMessage(const char* dest, const TCMessage* message, bool sync, TCMessage* reply,
                           int timeout)
{
    VELMORA_LOGI("");
    if (message == nullptr) {
        VELMORA_LOG_NULL("message");
        return false;
    }
    if (sync && reply == nullptr) {
        VELMORA_LOGW("You couldn't call SendMessage with no reply (== NULL) synchronically");
        return false;
    }
    if (dest == nullptr || *dest == '\0') {
        VELMORA_LOGE("No dest information");
        return false;
    }
    const SendGate gate(*this);
    if (!gate) {
        return false;
    }

    std::string name = std::string(dest) + ".message";
    {
        std::string nameHere;
        const HookScope target = m_EnterServer(dest, &nameHere);
        if (target && sync) {
            return m_SendDirect(*target, message, reply);
        }
        if (target && reply == nullptr && m_SendAsEvent(*target, dest, message)) {
            return true;
        }
        if (target) {
            name = std::move(nameHere);
        }
    }
    return m_SendOverBus(dest, std::move(name), message, sync, reply, timeout);
}

bool TCServer::m_SendDirect(TCServer& target, const TCMessage* message, TCMessage* reply) const
{
    VELMORA_LOGI("send sync message in one process");
    const TCMessage copy(*message);
    target.IfMessageReceived(m_ServiceName.c_str(), &copy, reply, nullptr);
    reply->Generate();
    return true;
}

bool TCServer::m_SendAsEvent(TCServer& target, const char* dest, const TCMessage* message) const
{
    VELMORA_LOGI("send async message in one process");
    auto* const queue = dynamic_cast<TCEventIO*>(&target);
    if (queue == nullptr) {
        return false;
    }
    VELMORA_LOGI("send internal event");
    auto copy = std::make_unique<TCMessage>(*message);
    TCEvent event;
    event.receiver = queue;
    event.id = EVENT_TRANSFER_MESSAGE;
    event.data.m_Json["from"] = m_ServiceName;
    event.data.m_Json["dest"] = dest;
    event.param.p = copy.get();
    if (!TCEventIO::SendEvent(&event)) {
        VELMORA_LOGI("send internal event fail, use dbus aysnc message call");
        return false;
    }
    static_cast<void>(copy.release()); // t_Clear of the queue frees it
    VELMORA_LOGI("send internal event sucess");
    return true;
}

void Internal::DeliverTransferredMessage(const TCEvent& event)
{
    TCMessage thrownAway;
    TCServer::SendMessage(NameIn(event.data.m_Json, "from").c_str(),
                          NameIn(event.data.m_Json, "dest").c_str(),
                          static_cast<const TCMessage*>(event.param.p), true, &thrownAway);
}

bool TCServer::m_SendOverBus(const char* dest, std::string target, const TCMessage* message,
                             bool sync, TCMessage* reply, int timeout)
{
    VELMORA_LOGI("send message to %s, sync : %s, reply : %p ", dest, sync ? "true" : "false",
                 static_cast<void*>(reply));
    if (!m_IsConnected()) {
        VELMORA_LOGE("dbus connection is not open");
        return false;
    }
    TCServerHelper::FormatDBusName(target);
    const std::string path = TCServerHelper::GetObjectPath(target);
    VELMORA_LOGI("prepare GVariant");
    const BusBody body(m_ServiceName, *message, BusBody::Use::Request);
    VELMORA_LOGI("from[%s] to [%s] [%s]", m_ServiceName.c_str(), target.c_str(),
                 body.Text().c_str());
    const char* reason = body.WhyNotCarried();
    if (!IsInterfaceName(target)) { // the stricter rule of the two that it is under
        reason = "the name is not legal on D-Bus";
    } else if (sync && timeout < -1) {
        reason = "the timeout is negative";
    }
    if (reason != nullptr) {
        VELMORA_LOGE("cannot send message to %s: %s", target.c_str(), reason);
        VELMORA_LOGD("send %s!", "fail");
        return false;
    }

    if (!sync) {
        std::unique_ptr<PendingReply> pending;
        if (reply != nullptr) {
            pending.reset(new PendingReply{this, LiveServers::Of(this)});
        }
        g_dbus_connection_call(m_Connection, target.c_str(), path.c_str(), target.c_str(),
                               MethodFor(body), body.Build(), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                               nullptr, pending ? &PendingReply::Deliver : nullptr, pending.get());
        static_cast<void>(pending.release()); // Deliver frees it
        VELMORA_LOGD("send %s!", "success");
        return true;
    }
    GError* raw = nullptr;
    const VariantPtr answer(g_dbus_connection_call_sync(
        m_Connection, target.c_str(), path.c_str(), target.c_str(), MethodFor(body), body.Build(),
        nullptr, G_DBUS_CALL_FLAGS_NONE, timeout, nullptr, &raw));
    const ErrorPtr error(raw);
    bool success = answer != nullptr;
    if (error) {
        VELMORA_LOGE("Fail to invoking sync message call(%s %d)", error->message, error->code);
    }
    if (answer) {
        try {
            Unpack(answer.get(), *reply);
            if (reply->Parse() && SaysFail(*reply)) {
                VELMORA_LOGE("send sync message fail: %s", reply->GetMessage().c_str());
                success = false;
            }
        } catch (const std::bad_alloc&) {
            VELMORA_LOGE("out of memory: the answer of %s is not taken", target.c_str());
            success = false;
        }
    }
    VELMORA_LOGD("send %s!", success ? "success" : "fail");
    return success;
}

void TCServer::m_PendingCallNotify(GObject* source, GAsyncResult* result, void* userData)
{
    VELMORA_LOGI("");
    if (userData == nullptr) {
        VELMORA_LOG_NULL("pThis");
        return;
    }
    const HookScope server(static_cast<TCServer*>(userData));
    if (!server) {
        return;
    }
    auto* const connection = reinterpret_cast<GDBusConnection*>(source);
    if (GDBusConnection* const own = server->m_Connection; own != connection) {
        VELMORA_LOGW("bus %p is different from owner's bus connection %p",
                     static_cast<void*>(connection), static_cast<void*>(own));
    }
    if (connection == nullptr || g_dbus_connection_is_closed(connection) != 0) {
        VELMORA_LOGE("bus connection is NULL");
        return;
    }
    GError* raw = nullptr;
    const VariantPtr answer(g_dbus_connection_call_finish(connection, result, &raw));
    const ErrorPtr error(raw);
    if (!answer) {
        VELMORA_LOGE("dbus finish fail!");
        return;
    }
    TCMessage message;
    std::unique_ptr<char[]> from;
    bool empty = true;
    try {
        from = Unpack(answer.get(), message);
        unsigned char* buffer = nullptr;
        empty = message.m_Type.empty() && message.GetMessage().empty() &&
                message.GetBuffer(buffer) == 0;
    } catch (const std::bad_alloc&) {
        VELMORA_LOGE("out of memory: an answer is dropped");
        return;
    }
    if (!empty) {
        server->IfMessageReplied(from.get(), &message);
    }
}

bool SendMessage(const char* server, const char* dest, const TCMessage* message, bool sync,
                 TCMessage* reply)
{
    return TCServer::SendMessage(server, dest, message, sync, reply);
}

} // namespace Velmora
