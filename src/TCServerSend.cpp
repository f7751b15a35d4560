// SPDX-License-Identifier: MIT
// Sends a message on one of three routes: a call inside the process, an event to a queue of the
// process, or a call over the bus.
#include <memory>
#include <new>
#include <utility>

#include "BusBody.h"
#include "BusInterface.h"
#include "BusNames.h"
#include "Crossing.h"
#include "DirectCall.h"
#include "SendGate.h"
#include "SendOwned.h"
#include "ServerRegistry.h"
#include "Trace.h"
#include "TransferDelivery.h"

namespace Velmora {

using namespace Internal;

namespace {

const char* MethodFor(const BusBody& body)
{
    return body.HasBuffer() ? kSendMessageWithBuffer : kSendMessage;
}

// The event may be of a client's making. Returns "", which is no server's name, if the value is not
// a string.
std::string NameIn(const Json::Value& names, const char* key)
{
    const Json::Value name = names.isObject() ? names[key] : Json::Value();
    return name.isConvertibleTo(Json::stringValue) ? name.asString() : "";
}

} // namespace

// The reply that an asynchronous send has asked for. It may come when the server is gone and
// another one has its address.
class TCServer::Private::PendingReply
{
public:
    explicit PendingReply(TCServer& server) : m_Server(&server), m_Life(ServerLives::Of(&server))
    {
        m_Crossing.Leave();
    }

    static void Deliver(GObject* source, GAsyncResult* result, void* data)
    {
        const std::unique_ptr<PendingReply> pending(static_cast<PendingReply*>(data));
        pending->m_Crossing.Arrive();
        if (const ServerPin alive(pending->m_Life); alive) {
            m_PendingCallNotify(source, result, pending->m_Server);
        }
    }

private:
    TCServer* const m_Server;
    const ServerLife m_Life;
    Crossing m_Crossing;
};

// One message on its way, by one of the routes. The server's gate is open meanwhile.
class TCServer::Private::Sending
{
public:
    Sending(TCServer& server, const char* dest, const TCMessage& message)
        : m_Server(server), m_Dest(dest), m_Message(message)
    {}

    bool Send(bool sync, TCMessage* reply, int timeout) const;

private:
    // Leaves the target if the answer comes later.
    bool Directly(ServerPin& target, TCMessage& reply, int timeout) const;
    // Returns false if the target has no queue, or the queue refuses the message.
    bool AsEvent(TCServer& target) const;
    bool OverBus(std::string target, bool sync, TCMessage* reply, int timeout) const;
    // The same text is bus name, interface name and, as a path, object of the target.
    bool CallLater(const std::string& target, const BusBody& body, bool wantsReply) const;
    bool CallNow(const std::string& target, const BusBody& body, TCMessage& reply,
                 int timeout) const;
    static bool TakeReply(const std::string& target, GVariant* answer, TCMessage& reply);

    TCServer& m_Server;
    const char* const m_Dest;
    const TCMessage& m_Message;
};

bool TCServer::SendMessage(const char* server, const char* dest, const TCMessage* message,
                           bool sync, TCMessage* reply)
{
    const ServerPin sender = ServerRegistry::Require(server);
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

    const Private::Sending sending(*this, dest, *message);
    SENNET_TRACE(send_begin, m_ServiceName.c_str(), dest, sync);
    const bool sent = sending.Send(sync, reply, timeout);
    SENNET_TRACE(send_end, m_ServiceName.c_str(), dest, sync, sent);
    return sent;
}

bool TCServer::Private::Sending::Send(bool sync, TCMessage* reply, int timeout) const
{
    std::string name;
    if (ServerPin target = ServerRegistry::Enter(m_Dest, &name); target) {
        if (sync) {
            return Directly(target, *reply, timeout);
        }
        if (reply == nullptr && AsEvent(*target)) {
            return true;
        }
    } else {
        name = AppendSuffix(m_Dest);
    }
    return OverBus(std::move(name), sync, reply, timeout);
}

bool TCServer::Private::Sending::Directly(ServerPin& target, TCMessage& reply, int timeout) const
{
    VELMORA_LOGI("send sync message in one process");
    const TCMessage copy(m_Message);
    DirectCall call(target.Life());
    target->IfMessageReceived(m_Server.m_ServiceName.c_str(), &copy, &reply, nullptr);
    if (call.IsAnswerTaken()) {
        target.Close(); // its end must not wait for the answer, but gives the error reply
        call.AwaitAnswer(reply, timeout);
    }
    reply.Generate();
    return true;
}

bool TCServer::Private::Sending::AsEvent(TCServer& target) const
{
    VELMORA_LOGI("send async message in one process");
    auto* const queue = dynamic_cast<TCEventIO*>(&target);
    if (queue == nullptr) {
        return false;
    }
    VELMORA_LOGI("send internal event");
    TCEvent event;
    event.receiver = queue;
    event.id = EVENT_TRANSFER_MESSAGE;
    event.data.m_Json["from"] = m_Server.m_ServiceName;
    event.data.m_Json["dest"] = m_Dest;
    if (!SendOwned(event, std::make_unique<TCMessage>(m_Message))) {
        VELMORA_LOGI("send internal event fail, use dbus aysnc message call");
        return false;
    }
    VELMORA_LOGI("send internal event sucess");
    return true;
}

void Internal::DeliverTransferredMessage(const TCEvent& event)
{
    TCMessage thrownAway;
    const DirectCall::AnswerUnwanted unwanted;
    TCServer::SendMessage(NameIn(event.data.m_Json, "from").c_str(),
                          NameIn(event.data.m_Json, "dest").c_str(),
                          static_cast<const TCMessage*>(event.param.p), true, &thrownAway);
}

bool TCServer::Private::Sending::OverBus(std::string target, bool sync, TCMessage* reply,
                                         int timeout) const
{
    VELMORA_LOGI("send message to %s, sync : %s, reply : %p ", m_Dest, sync ? "true" : "false",
                 static_cast<void*>(reply));
    if (!IsConnected(m_Server)) {
        VELMORA_LOGE("dbus connection is not open");
        return false;
    }
    MakeLegal(target);
    VELMORA_LOGI("prepare GVariant");
    const BusBody body(m_Server.m_ServiceName, m_Message, BusBody::Use::Request);
    VELMORA_LOGI("from[%s] to [%s] [%s]", m_Server.m_ServiceName.c_str(), target.c_str(),
                 body.Text().c_str());
    const char* reason = body.WhyNotCarried();
    if (!IsInterfaceName(target)) { // stricter than the rule for bus names
        reason = "the name is not legal on D-Bus";
    } else if (sync && timeout < -1) {
        reason = "the timeout is negative";
    }
    bool success = false;
    if (reason != nullptr) {
        VELMORA_LOGE("cannot send message to %s: %s", target.c_str(), reason);
    } else {
        success = sync ? CallNow(target, body, *reply, timeout)
                       : CallLater(target, body, reply != nullptr);
    }
    VELMORA_LOGD("send %s!", success ? "success" : "fail");
    return success;
}

bool TCServer::Private::Sending::CallLater(const std::string& target, const BusBody& body,
                                           bool wantsReply) const
{
    const std::string path = TCServerHelper::GetObjectPath(target);
    auto pending = wantsReply ? std::make_unique<PendingReply>(m_Server) : nullptr;
    g_dbus_connection_call(m_Server.m_Connection, target.c_str(), path.c_str(), target.c_str(),
                           MethodFor(body), body.Build(), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                           nullptr, wantsReply ? &PendingReply::Deliver : nullptr, pending.get());
    static_cast<void>(pending.release()); // Deliver frees it
    return true;
}

bool TCServer::Private::Sending::CallNow(const std::string& target, const BusBody& body,
                                         TCMessage& reply, int timeout) const
{
    const std::string path = TCServerHelper::GetObjectPath(target);
    GError* raw = nullptr;
    const VariantPtr answer(g_dbus_connection_call_sync(
        m_Server.m_Connection, target.c_str(), path.c_str(), target.c_str(), MethodFor(body),
        body.Build(), nullptr, G_DBUS_CALL_FLAGS_NONE, timeout, nullptr, &raw));
    if (const ErrorPtr error(raw); error) {
        VELMORA_LOGE("Fail to invoking sync message call(%s %d)", error->message, error->code);
    }
    return answer && TakeReply(target, answer.get(), reply);
}

bool TCServer::Private::Sending::TakeReply(const std::string& target, GVariant* answer,
                                           TCMessage& reply)
try {
    ParseBody(answer).CopyInto(reply);
    if (reply.Parse() && SaysFail(reply)) {
        VELMORA_LOGE("send sync message fail: %s", reply.GetMessage().c_str());
        return false;
    }
    return true;
} catch (const std::bad_alloc&) {
    VELMORA_LOGE("out of memory: the answer of %s is not taken", target.c_str());
    return false;
}

void TCServer::m_PendingCallNotify(GObject* source, GAsyncResult* result, void* userData)
{
    VELMORA_LOGI("");
    if (userData == nullptr) {
        VELMORA_LOG_NULL("pThis");
        return;
    }
    const ServerPin server(static_cast<TCServer*>(userData));
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
    ParsedBody body;
    TCMessage message;
    bool empty = true;
    try {
        body = ParseBody(answer.get());
        body.CopyInto(message);
        empty = message.m_Type.empty() && message.GetMessage().empty() && body.size == 0;
    } catch (const std::bad_alloc&) {
        VELMORA_LOGE("out of memory: an answer is dropped");
        return;
    }
    if (!empty) {
        server->IfMessageReplied(body.from, &message);
    }
}

} // namespace Velmora
