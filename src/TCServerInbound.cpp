// Calls that arrive over the bus: unpacked, moved to a queue's thread where the client says so,
// handled and answered.
#include <functional>
#include <memory>
#include <utility>

#include "BusBody.h"
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
class TCServer::MovedCall
{
public:
    MovedCall(const HookScope& server, std::unique_ptr<char[]> from,
              std::unique_ptr<TCMessage> message, GDBusMethodInvocation* invocation)
        : m_Server(&*server), m_Identity(server.Identity()), m_From(std::move(from)),
          m_Message(std::move(message)), m_Invocation(invocation)
    {}

    void Handle()
    {
        const HookScope server(m_Server, m_Identity);
        if (server) {
            server->m_HandleMsg(m_From.release(), m_Message.release(), m_Invocation.Release());
        }
    }

private:
    TCServer* m_Server;
    std::uint64_t m_Identity;
    std::unique_ptr<char[]> m_From;
    std::unique_ptr<TCMessage> m_Message;
    Invocation m_Invocation;
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
    auto message = std::make_unique<TCMessage>();
    std::unique_ptr<char[]> from = ReadBody(parameters, *message);
    VELMORA_LOGI("from[%s] [%s]", from ? from.get() : "null",
                 from ? message->GetString().c_str() : "null");

    TCEventIO* target = nullptr;
    const bool moved = server->IfTransferMessage(from.get(), message.get(), target);
    const auto call = std::make_shared<MovedCall>(server, std::move(from), std::move(message),
                                                  invocation.Release());
    if (moved && target != nullptr) {
        VELMORA_LOGI("send internal event");
        auto callable = std::make_unique<std::function<void()>>([call] { call->Handle(); });
        TCEvent event;
        event.receiver = target;
        event.id = EVENT_EXECUTE_FUNCTION;
        event.param.p = callable.get();
        if (TCEventIO::SendEvent(&event)) {
            static_cast<void>(callable.release()); // t_Clear of the queue frees it
            VELMORA_LOGI("send internal event success");
            return;
        }
    }
    call->Handle();
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
    reply.Generate();
    const BusBody body(m_ServiceName, reply, BusBody::Use::Reply);
    if (const char* const reason = body.WhyNotCarried(); reason != nullptr) {
        VELMORA_LOGE("cannot reply: %s", reason);
        return;
    }
    invocation.Answer(body.Build());
}

} // namespace Velmora
