// Calls that arrive over the bus: unpacked, moved to a queue's thread where the client says so,
// handled and answered.
#include <functional>
#include <memory>
#include <new>
#include <utility>

#include "BusBody.h"
#include "BusHandle.h"
#include "OpenCall.h"
#include "TCServerCallbacks.h"

namespace Velmora {

using namespace Internal;

namespace {

// What a call has brought, for its hooks.
struct Arrived
{
    std::unique_ptr<char[]> from;
    std::unique_ptr<TCMessage> message;
};

Arrived UnpackCall(GVariant* parameters)
{
    ReceivedBody body(parameters);
    VELMORA_LOGI("from[%s] [%s]", body.from ? body.from.get() : "null",
                 body.text ? body.text.get() : "null");
    Arrived arrived{nullptr, std::make_unique<TCMessage>()};
    body.MoveInto(*arrived.message);
    arrived.from = std::move(body.from);
    return arrived;
}

} // namespace

// A call on its way to the thread that handles it. Wherever it ends up without having been handled,
// in a queue that is cleared or with a server that is gone, its caller gets the error reply.
class TCServer::MovedCall
{
public:
    MovedCall(std::shared_ptr<OpenCall> call, Arrived arrived)
        : m_Call(std::move(call)), m_Arrived(std::move(arrived))
    {}

    void Handle()
    {
        if (const HookScope server(m_Call->GetLife()); server) {
            HandleNow(*server, *m_Call, m_Arrived);
        }
    }

    static void HandleNow(TCServer& server, OpenCall& call, Arrived& arrived)
    {
        struct Answered
        {
            ~Answered() { m_Call.Answered(); } // also if the hook throws
            OpenCall& m_Call;
        };
        if (GDBusMethodInvocation* const invocation = call.Take(); invocation != nullptr) {
            const Answered answered{call};
            server.m_HandleMsg(arrived.from.release(), arrived.message.release(), invocation);
        }
    }

    static bool Send(TCEventIO& target, const std::shared_ptr<MovedCall>& call)
    {
        VELMORA_LOGI("send internal event");
        auto callable = std::make_unique<std::function<void()>>([call] { call->Handle(); });
        TCEvent event;
        event.receiver = &target;
        event.id = EVENT_EXECUTE_FUNCTION;
        event.param.p = callable.get();
        if (!TCEventIO::SendEvent(&event)) {
            return false;
        }
        static_cast<void>(callable.release()); // t_Clear of the queue frees it
        VELMORA_LOGI("send internal event success");
        return true;
    }

private:
    const std::shared_ptr<OpenCall> m_Call;
    Arrived m_Arrived;
};

const GDBusInterfaceVTable TCServer::Callbacks::callTable = {
    &Callbacks::m_DObjectHandler, nullptr, nullptr, {}};

void TCServer::m_DObjectHandler(GDBusConnection* /*connection*/, const char* /*sender*/,
                                const char* /*path*/, const char* /*interfaceName*/,
                                const char* methodName, GVariant* parameters,
                                GDBusMethodInvocation* invocation, void* userData)
{
    VELMORA_LOGI("");
    if (userData == nullptr) {
        VELMORA_LOGE("pThis NULL");
        const Invocation refused(invocation);
        return;
    }
    Callbacks::DeliverCall(HookScope(static_cast<TCServer*>(userData)), methodName, parameters,
                           invocation);
}

void TCServer::Callbacks::m_DObjectHandler(GDBusConnection* /*connection*/, const char* /*sender*/,
                                           const char* /*path*/, const char* /*interfaceName*/,
                                           const char* methodName, GVariant* parameters,
                                           GDBusMethodInvocation* invocation, void* handle)
{
    VELMORA_LOGI("");
    DeliverCall(HookScope(BusHandle::LifeOf(handle)), methodName, parameters, invocation);
}

// What runs out of memory before a hook has the message is answered with the error reply; what a
// hook throws is the client's.
void TCServer::Callbacks::DeliverCall(const HookScope& server, const char* methodName,
                                      GVariant* parameters, GDBusMethodInvocation* rawInvocation)
{
    Invocation invocation(rawInvocation);
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
    std::shared_ptr<OpenCall> call;
    Arrived arrived;
    try {
        call = OpenCall::Begin(server.GetLife(), invocation.Release());
        arrived = UnpackCall(parameters);
    } catch (const std::bad_alloc&) {
        VELMORA_LOGE("out of memory: a call is not handled");
        return;
    }

    TCEventIO* target = nullptr;
    if (server->IfTransferMessage(arrived.from.get(), arrived.message.get(), target) &&
        target != nullptr) {
        std::shared_ptr<MovedCall> moved;
        try {
            moved = std::make_shared<MovedCall>(std::move(call), std::move(arrived));
            if (MovedCall::Send(*target, moved)) {
                return;
            }
        } catch (const std::bad_alloc&) {
            VELMORA_LOGE("out of memory: a call is not handled");
            return;
        }
        moved->Handle();
    } else {
        MovedCall::HandleNow(*server, *call, arrived);
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
    try {
        const BusBody body(m_ServiceName, reply, BusBody::Use::Reply);
        if (const char* const reason = body.WhyNotCarried(); reason != nullptr) {
            VELMORA_LOGE("cannot reply: %s", reason);
            return;
        }
        invocation.Answer(body.Build());
    } catch (const std::bad_alloc&) {
        VELMORA_LOGE("cannot reply: out of memory");
    }
}

} // namespace Velmora
