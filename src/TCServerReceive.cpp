// SPDX-License-Identifier: MIT
// Calls that arrive over the bus: parsed, moved to a queue's thread if the client wants that,
// handled and answered.
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <utility>

#include "BusBody.h"
#include "BusHandle.h"
#include "BusInterface.h"
#include "InboundCall.h"
#include "OpenCall.h"
#include "SendOwned.h"
#include "TCServerPrivate.h"
#include "Trace.h"

namespace Velmora {

using namespace Internal;

namespace {

// The content of a call, in the form that m_HandleMsg() takes over.
struct Arrived
{
    std::unique_ptr<char[]> from;
    std::unique_ptr<TCMessage> message;
};

Arrived ParseCall(GVariant* parameters)
{
    const ParsedBody body = ParseBody(parameters);
    VELMORA_LOGI("from[%s] [%s]", body.from != nullptr ? body.from : "null",
                 body.text != nullptr ? body.text : "null");
    Arrived arrived{nullptr, std::make_unique<TCMessage>()};
    if (body.from != nullptr) {
        const std::size_t size = std::strlen(body.from) + 1;
        arrived.from.reset(new char[size]);
        std::memcpy(arrived.from.get(), body.from, size);
    }
    body.CopyInto(*arrived.message);
    return arrived;
}

// Returns whether the caller gets the reply, and not the error reply.
bool AnswerWith(const TCMessage& reply, const std::string& serviceName, Invocation& invocation)
try {
    const BusBody body(serviceName, reply, BusBody::Use::Reply);
    if (const char* const reason = body.WhyNotCarried(); reason != nullptr) {
        VELMORA_LOGE("cannot reply: %s", reason);
        return false;
    }
    SENNET_TRACE(answer, serviceName.c_str(), 0);
    invocation.Answer(body.Build());
    return true;
} catch (const std::bad_alloc&) {
    VELMORA_LOGE("cannot reply: out of memory");
    return false;
}

// The answer of a call, taken out of its hook. The call stays open, so that the end of its server's
// life answers it.
class BusAnswer : public AnswerLater
{
public:
    BusAnswer(std::string serviceName, std::shared_ptr<OpenCall> call)
        : m_ServiceName(std::move(serviceName)), m_Call(std::move(call))
    {}
    ~BusAnswer() override { Give(nullptr); }
    BusAnswer(const BusAnswer&) = delete;
    BusAnswer& operator=(const BusAnswer&) = delete;

    bool Answer(const TCMessage& message) override { return Give(&message); }

private:
    bool Give(const TCMessage* message)
    {
        // So that the end of the life waits for this answer. Without it, the end gives the error
        // reply.
        const ServerPin pin(m_Call->Life());
        if (!pin) {
            return false;
        }
        bool given = false;
        {
            Invocation invocation(m_Call->Take());
            if (invocation.Get() == nullptr) {
                return false;
            }
            given = message != nullptr && AnswerWith(*message, m_ServiceName, invocation);
        }
        m_Call->Answered();
        return given;
    }

    const std::string m_ServiceName;
    const std::shared_ptr<OpenCall> m_Call;
};

// A call whose hook runs.
class HookedCall : public InboundCall
{
public:
    HookedCall(const std::string& serviceName, const std::shared_ptr<OpenCall>& call,
               const GDBusMethodInvocation* taken)
        : InboundCall(call->Connection(), call->Sender(), call->WantsAnswer()),
          m_ServiceName(serviceName), m_Call(call), m_Taken(taken)
    {}

    void Hold(Invocation& invocation) override
    {
        if (invocation.Get() == m_Taken) { // else of a call that a client handles inside the hook
            m_Invocation = &invocation;
        }
    }

private:
    std::unique_ptr<AnswerLater> MoveAnswer() override
    {
        if (m_Invocation == nullptr) {
            return nullptr;
        }
        auto answer = std::make_unique<BusAnswer>(m_ServiceName, m_Call);
        m_Call->PutBack(m_Invocation->Release());
        return answer;
    }

    const std::string& m_ServiceName;
    const std::shared_ptr<OpenCall>& m_Call;
    const GDBusMethodInvocation* const m_Taken;
    Invocation* m_Invocation = nullptr; // during m_HandleMsg()
};

} // namespace

// A call on its way to the thread that handles it. If it is destroyed unhandled, in a queue that is
// cleared or after its server is gone, its caller gets the error reply.
class TCServer::Private::MovedCall
{
public:
    MovedCall(std::shared_ptr<OpenCall> call, Arrived arrived)
        : m_Call(std::move(call)), m_Arrived(std::move(arrived))
    {}

    void Handle()
    {
        if (const ServerPin server(m_Call->Life()); server) {
            HandleNow(*server, m_Call, m_Arrived);
        }
    }

    static void HandleNow(TCServer& server, const std::shared_ptr<OpenCall>& call, Arrived& arrived)
    {
        struct Handled
        {
            ~Handled() // also if the hook throws
            {
                if (!m_Hooked.IsAnswerTaken()) {
                    m_Call.Answered();
                }
            }
            OpenCall& m_Call;
            const InboundCall& m_Hooked;
        };
        if (GDBusMethodInvocation* const invocation = call->Take(); invocation != nullptr) {
            const HookedCall hooked(server.m_ServiceName, call, invocation);
            const Handled handled{*call, hooked};
            server.m_HandleMsg(arrived.from.release(), arrived.message.release(), invocation);
        }
    }

    static bool Send(TCEventIO& target, const std::shared_ptr<MovedCall>& call)
    {
        VELMORA_LOGI("send internal event");
        auto handle = std::make_unique<std::function<void()>>([call] { call->Handle(); });
        if (!SendOwned(target, EVENT_EXECUTE_FUNCTION, std::move(handle))) {
            return false;
        }
        VELMORA_LOGI("send internal event success");
        return true;
    }

private:
    const std::shared_ptr<OpenCall> m_Call;
    Arrived m_Arrived;
};

const GDBusInterfaceVTable TCServer::Private::Callbacks::callTable = {
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
    Private::Callbacks::DeliverCall(ServerPin(static_cast<TCServer*>(userData)), methodName,
                                    parameters, invocation);
}

void TCServer::Private::Callbacks::m_DObjectHandler(GDBusConnection* /*connection*/,
                                                    const char* /*sender*/, const char* /*path*/,
                                                    const char* /*interfaceName*/,
                                                    const char* methodName, GVariant* parameters,
                                                    GDBusMethodInvocation* invocation, void* handle)
{
    VELMORA_LOGI("");
    DeliverCall(ServerPin(BusHandle::LifeOf(handle)), methodName, parameters, invocation);
}

// If memory runs out before a hook has the message, the caller gets the error reply. What a hook
// throws passes through.
void TCServer::Private::Callbacks::DeliverCall(const ServerPin& server, const char* methodName,
                                               GVariant* parameters,
                                               GDBusMethodInvocation* rawInvocation)
{
    Invocation invocation(rawInvocation);
    if (!server) {
        return;
    }
    if (g_strcmp0(methodName, kSendMessage) == 0) {
        VELMORA_LOGI("%s", kSendMessage);
    } else if (g_strcmp0(methodName, kSendMessageWithBuffer) == 0) {
        VELMORA_LOGI("%s", kSendMessageWithBuffer);
    } else {
        VELMORA_LOGE("error method name : %s", methodName);
        return;
    }
    std::shared_ptr<OpenCall> call;
    Arrived arrived;
    try {
        call = OpenCall::Begin(server.Life(), invocation.Release());
        SENNET_TRACE(call_in, server->m_ServiceName.c_str(), call->Sender().c_str(), methodName);
        arrived = ParseCall(parameters);
    } catch (const std::bad_alloc&) {
        VELMORA_LOGE("out of memory: a call is not handled");
        return;
    }

    TCEventIO* target = nullptr;
    bool moves = false;
    {
        const InboundCall asked(call->Connection(), call->Sender(), call->WantsAnswer());
        moves = server->IfTransferMessage(arrived.from.get(), arrived.message.get(), target) &&
                target != nullptr;
    }
    if (moves) {
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
        MovedCall::HandleNow(*server, call, arrived);
    }
}

void TCServer::m_HandleMsg(const char* rawFrom, const TCMessage* rawMessage,
                           GDBusMethodInvocation* rawInvocation)
{
    Invocation invocation(rawInvocation);
    if (InboundCall* const call = InboundCall::Current(); call != nullptr) {
        call->Hold(invocation);
    }
    TCMessage reply;
    {
        const std::unique_ptr<const char[]> from(rawFrom);
        const std::unique_ptr<const TCMessage> message(rawMessage);
        IfMessageReceived(from.get(), message.get(), &reply, nullptr);
    }
    if (invocation.Get() != nullptr) { // else a TCReply has it
        AnswerWith(reply, m_ServiceName, invocation);
    }
}

} // namespace Velmora
