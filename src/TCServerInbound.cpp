// Calls that arrive over the bus: unpacked, moved to a queue's thread where the client says so,
// handled and answered.
#include <atomic>
#include <functional>
#include <memory>
#include <utility>

#include "BusBody.h"
#include "GLibPtr.h"
#include "LiveServers.h"
#include "TCServer.h"

namespace Velmora {

using namespace Internal;

namespace {

// An open invocation: gets the error reply unless another answer has consumed it.
class Invocation
{
public:
    explicit Invocation(GDBusMethodInvocation* invocation) : m_Invocation(invocation) {}
    ~Invocation()
    {
        if (m_Invocation != nullptr) {
            Answer(BuildErrorReply());
        }
    }
    Invocation(const Invocation&) = delete;
    Invocation& operator=(const Invocation&) = delete;

    void Answer(GVariant* body)
    {
        g_dbus_method_invocation_return_value(std::exchange(m_Invocation, nullptr), body);
    }
    GDBusMethodInvocation* Release() { return std::exchange(m_Invocation, nullptr); }

private:
    GDBusMethodInvocation* m_Invocation;
};

} // namespace

// A call on its way to the thread that handles it. Wherever it ends up without having been handled,
// in a queue that is cleared or with a server that is gone, its caller gets the error reply.
class TCServer::MovedCall : public OpenCall
{
public:
    MovedCall(Life life, std::unique_ptr<char[]> from, std::unique_ptr<TCMessage> message,
              GDBusMethodInvocation* invocation)
        : m_Life(std::move(life)), m_From(std::move(from)), m_Message(std::move(message)),
          m_Invocation(invocation)
    {}
    ~MovedCall() override
    {
        LiveServers::Detach(m_Life, this);
        const Invocation unhandled(m_Invocation.exchange(nullptr));
    }
    MovedCall(const MovedCall&) = delete;
    MovedCall& operator=(const MovedCall&) = delete;

    void Handle()
    {
        const HookScope server(m_Life);
        if (server) {
            server->m_HandleMsg(m_From.release(), m_Message.release(),
                                m_Invocation.exchange(nullptr));
        }
    }

    // By the end of the server, after which perhaps nobody holds the connection any more; what it
    // has not sent by then is lost.
    void FailAndFlush() override
    {
        GDBusMethodInvocation* const unhandled = m_Invocation.exchange(nullptr);
        if (unhandled == nullptr) {
            return;
        }
        const ConnectionPtr connection(static_cast<GDBusConnection*>(
            g_object_ref(g_dbus_method_invocation_get_connection(unhandled))));
        {
            const Invocation failed(unhandled);
        }
        g_dbus_connection_flush_sync(connection.get(), nullptr, nullptr);
    }

    const Life m_Life;

private:
    std::unique_ptr<char[]> m_From;
    std::unique_ptr<TCMessage> m_Message;
    // Taken by the queue's thread to be handled, or by the one that ends the server.
    std::atomic<GDBusMethodInvocation*> m_Invocation;
};

void TCServer::m_DObjectHandler(GDBusConnection* /*connection*/, const char* /*sender*/,
                                const char* /*path*/, const char* /*interfaceName*/,
                                const char* methodName, GVariant* parameters,
                                GDBusMethodInvocation* rawInvocation, void* userData)
{
    VELMORA_LOGI("");
    Invocation invocation(rawInvocation);
    if (userData == nullptr) {
        VELMORA_LOGE("pThis NULL");
        return;
    }
    const HookScope server(static_cast<TCServer*>(userData));
    if (!server) {
        return;
    }

    if (g_strcmp0(methodName, "SendMessage") == 0) {
        VELMORA_LOGI("SendMessage");
    } else if (g_strcmp0(methodName, "SendMessageWithBuffer") == 0) {
        VELMORA_LOGI("SendMessageWithBuffer");
    } else {
        VELMORA_LOGE("error method name : %s", methodName);
        return;
    }
    ReceivedBody body(parameters);
    VELMORA_LOGI("from[%s] [%s]", body.from ? body.from.get() : "null",
                 body.text ? body.text.get() : "null");
    auto message = std::make_unique<TCMessage>();
    body.MoveInto(*message);

    TCEventIO* target = nullptr;
    if (server->IfTransferMessage(body.from.get(), message.get(), target) && target != nullptr) {
        m_MoveCall(*target, std::make_shared<MovedCall>(server.GetLife(), std::move(body.from),
                                                        std::move(message), invocation.Release()));
    } else {
        server->m_HandleMsg(body.from.release(), message.release(), invocation.Release());
    }
}

void TCServer::m_MoveCall(TCEventIO& target, const std::shared_ptr<MovedCall>& call)
{
    VELMORA_LOGI("send internal event");
    LiveServers::Attach(call->m_Life, call);
    auto callable = std::make_unique<std::function<void()>>([call] { call->Handle(); });
    TCEvent event;
    event.receiver = &target;
    event.id = EVENT_EXECUTE_FUNCTION;
    event.param.p = callable.get();
    if (TCEventIO::SendEvent(&event)) {
        static_cast<void>(callable.release()); // t_Clear of the queue frees it
        VELMORA_LOGI("send internal event success");
    } else {
        call->Handle();
    }
}

void TCServer::m_HandleMsg(const char* rawFrom, const TCMessage* rawMessage,
                           GDBusMethodInvocation* rawInvocation)
{
    Invocation invocation(rawInvocation);
    TCMessage reply;
    {
        const std::unique_ptr<const char[]> from(rawFrom);
        const std::unique_ptr<const TCMessage> message(rawMessage);
        IfMessageReceived(from.get(), message.get(), &reply, nullptr);
    }
    const BusBody body(m_ServiceName, reply, BusBody::Use::Reply);
    if (const char* const reason = body.WhyNotCarried(); reason != nullptr) {
        VELMORA_LOGE("cannot reply: %s", reason);
        return;
    }
    invocation.Answer(body.Build());
}

} // namespace Velmora
