// SPDX-License-Identifier: MIT
// Starts a call: through the queue of a service in this process, or over the bus.
#include <memory>
#include <utility>

#include "BusBody.h"
#include "BusInterface.h"
#include "BusNames.h"
#include "InboundCall.h"
#include "LocalAnswer.h"
#include "QueueRef.h"
#include "SendGate.h"
#include "ServerRegistry.h"
#include "Trace.h"
#include "extra/CallTable.h"

namespace Velmora {

using namespace Internal;

using Kind = TCCallResult::Kind;

namespace {

constexpr int kDefaultTimeout = 25000; // milliseconds, as GDBus has it

gint64 DeadlineAfter(int timeout)
{
    const gint64 milliseconds = timeout == -1 ? kDefaultTimeout : timeout;
    return g_get_monotonic_time() + milliseconds * 1000;
}

// The hook of a call that has come through a queue.
class QueuedHook : public InboundCall
{
public:
    QueuedHook(const ServerLife& target, const std::shared_ptr<PendingCall>& call)
        : InboundCall(nullptr, "", true), m_Target(target), m_Call(call)
    {}

private:
    std::unique_ptr<AnswerLater> MoveAnswer() override
    {
        return OpenLocalAnswer(m_Target, [call = m_Call](const TCMessage* answer) {
            return call->End(CallOutcome(answer));
        });
    }

    const ServerLife& m_Target;
    const std::shared_ptr<PendingCall>& m_Call;
};

} // namespace

// A call in the queue of its target. If it is destroyed unanswered, the target has gone.
class TCServer::Private::QueuedCall
{
public:
    QueuedCall(std::shared_ptr<PendingCall> call, ServerLife target, std::string from,
               const TCMessage& message)
        : m_Call(std::move(call)), m_Target(std::move(target)), m_From(std::move(from)),
          m_Message(message)
    {}
    ~QueuedCall()
    {
        if (!m_Done) {
            m_Call->End({Kind::PeerGone, "the service ended before it answered"});
        }
    }
    QueuedCall(const QueuedCall&) = delete;
    QueuedCall& operator=(const QueuedCall&) = delete;

    // The call takes another way.
    void GiveUp() { m_Done = true; }

    void Handle()
    {
        const ServerPin server(m_Target);
        if (!server) {
            return;
        }
        TCMessage reply;
        const QueuedHook hook(m_Target, m_Call);
        server->IfMessageReceived(m_From.c_str(), &m_Message, &reply, nullptr);
        if (!hook.IsAnswerTaken()) {
            reply.Generate();
            m_Call->End(CallOutcome(&reply));
        }
        m_Done = true;
    }

private:
    const std::shared_ptr<PendingCall> m_Call;
    const ServerLife m_Target;
    const std::string m_From;
    const TCMessage m_Message;
    bool m_Done = false; // used by one thread after the other
};

// One call from an open server, whose gate is open meanwhile.
class TCServer::Private::Calling
{
public:
    Calling(TCServer& server, std::shared_ptr<PendingCall> call, const TCMessage& message,
            int timeout)
        : m_Server(server), m_Life(ServerLives::Of(&server)), m_Call(std::move(call)),
          m_Message(message), m_Deadline(DeadlineAfter(timeout))
    {}

    // Returns false if the target has no queue, or the queue does not take the call.
    bool ThroughQueue(const ServerPin& target) const
    {
        auto* const queue = dynamic_cast<TCEventIO*>(&*target);
        if (queue == nullptr) {
            return false;
        }
        const auto queued =
            std::make_shared<QueuedCall>(m_Call, target.Life(), m_Server.m_ServiceName, m_Message);
        std::function<void()> handle = [queued] { queued->Handle(); };
        if (!QueueRef(*queue).Post(handle)) {
            queued->GiveUp();
            return false;
        }
        CallTable::Add(m_Call, m_Life, m_Deadline);
        return true;
    }

    void OverBus(std::string target) const
    {
        if (!IsConnected(m_Server)) {
            m_Call->End({Kind::BusGone, "the connection to the bus is lost"});
            return;
        }
        MakeLegal(target);
        const BusBody body(m_Server.m_ServiceName, m_Message, BusBody::Use::Request);
        const char* const reason =
            IsInterfaceName(target) ? body.WhyNotCarried() : "the name is not legal on D-Bus";
        if (reason != nullptr) {
            m_Call->End({Kind::Refused, std::string("cannot send the message: ") + reason});
        } else {
            Send(target, body);
        }
    }

private:
    void Send(const std::string& target, const BusBody& body) const
    {
        const std::unique_ptr<GDBusMessage, Releaser<g_object_unref>> message(
            g_dbus_message_new_method_call(
                target.c_str(), TCServerHelper::GetObjectPath(target).c_str(), target.c_str(),
                body.HasBuffer() ? kSendMessageWithBuffer : kSendMessage));
        g_dbus_message_set_body(message.get(), body.Build());
        CallTable::Send(m_Call, m_Life, m_Server.m_Connection, message.get(), m_Deadline);
    }

    TCServer& m_Server;
    const ServerLife m_Life;
    const std::shared_ptr<PendingCall> m_Call;
    const TCMessage& m_Message;
    const gint64 m_Deadline;
};

void TCServer::Private::StartCall(TCServer& server, const std::shared_ptr<PendingCall>& call,
                                  const char* dest, const TCMessage& message, int timeout)
{
    if (dest == nullptr || *dest == '\0') {
        call->End({Kind::Refused, "no destination is given"});
        return;
    }
    if (timeout < -1) {
        call->End({Kind::Refused, "the timeout is negative"});
        return;
    }
    SENNET_TRACE(call_start, call.get(), server.m_ServiceName.c_str(), dest);
    VELMORA_LOGI("send message to %s, as a call", dest);
    const SendGate gate(server);
    if (!gate || !server.m_FlagOpen || !CallTable::MakeReady()) {
        call->End({Kind::Refused, gate ? "the server is not open" : "the server is being closed"});
        return;
    }
    const Calling calling(server, call, message, timeout);
    std::string name;
    if (const ServerPin target = ServerRegistry::Enter(dest, &name); target) {
        if (calling.ThroughQueue(target)) {
            return;
        }
    } else {
        name = AppendSuffix(dest);
    }
    calling.OverBus(std::move(name));
}

} // namespace Velmora
