// SPDX-License-Identifier: MIT
#include "extra/CallTable.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <new>
#include <utility>
#include <vector>

#include "Locks.h"
#include "TCLog.h"
#include "extra/LossWatch.h"
#include "extra/OnContext.h"
#include "extra/OwnerLeaves.h"

namespace Velmora::Internal {

using Kind = TCCallResult::Kind;
using CallPtr = std::shared_ptr<PendingCall>;

namespace {

// What a connection needs for as long as a server that has made a call on it is open.
struct Line
{
    explicit Line(GDBusConnection* itsConnection)
        : connection(static_cast<GDBusConnection*>(g_object_ref(itsConnection)))
    {}
    ConnectionPtr connection;
    std::shared_ptr<LossWatch> loss;
    OwnerLeaves leaves;
    std::vector<std::shared_ptr<ServerState>> servers; // that hold it
};

// One lock for all: it is held for look-ups and while GDBus queues a rule, never for a message or
// client code.
struct Table
{
    Mutex mutex;
    std::atomic<bool> inUse{false}; // a call was made; never reset
    std::map<PendingCall*, CallPtr> calls SENNET_THREAD_SAFETY(guarded_by(mutex));
    std::multimap<gint64, PendingCall*> byDeadline SENNET_THREAD_SAFETY(guarded_by(mutex));
    std::map<std::pair<GDBusConnection*, guint32>, PendingCall*>
        bySerial SENNET_THREAD_SAFETY(guarded_by(mutex));
    // While GDBus queues their messages, so that their serials may be known to GDBus alone.
    std::vector<PendingCall*> beingSent SENNET_THREAD_SAFETY(guarded_by(mutex));
    std::map<GDBusConnection*, Line> lines SENNET_THREAD_SAFETY(guarded_by(mutex));
    GSource* timer SENNET_THREAD_SAFETY(guarded_by(mutex)) = nullptr; // on the library's thread
    gint64 due SENNET_THREAD_SAFETY(guarded_by(mutex)) = G_MAXINT64;  // of the timer
};

// Never destroyed: a worker thread may be in the filter when the process ends.
Table& All()
{
    static auto& all = *new Table;
    return all;
}

void EndAll(const std::vector<CallPtr>& calls, Kind kind, const char* text)
{
    for (const CallPtr& call : calls) {
        call->End({kind, text});
    }
}

gboolean OnTimer(GSource* timer, GSourceFunc /*callback*/, void* /*data*/)
{
    std::vector<CallPtr> late;
    {
        Table& all = All();
        const Lock lock(all.mutex);
        const auto future = all.byDeadline.upper_bound(g_get_monotonic_time());
        for (auto entry = all.byDeadline.begin(); entry != future; ++entry) {
            late.push_back(all.calls.at(entry->second));
        }
        all.due = future != all.byDeadline.end() ? future->first : G_MAXINT64;
        g_source_set_ready_time(timer, all.due != G_MAXINT64 ? all.due : -1);
    }
    EndAll(late, Kind::NoAnswer, "no answer within the time limit");
    return G_SOURCE_CONTINUE;
}

GSourceFuncs g_TimerFunctions = {nullptr, nullptr, &OnTimer, nullptr, nullptr, nullptr};

// The timer may be due too early, when the call that needed it has ended: that costs less than to
// wake the thread at every end.
void SetTimer(Table& all, gint64 deadline) SENNET_THREAD_SAFETY(requires_capability(all.mutex))
{
    if (deadline < all.due) {
        all.due = deadline;
        g_source_set_ready_time(all.timer, deadline);
    }
}

// Returns false if the call has ended before.
bool Enter(Table& all, const CallPtr& call, gint64 deadline)
    SENNET_THREAD_SAFETY(requires_capability(all.mutex))
{
    if (call->HasEnded()) {
        return false;
    }
    all.calls.emplace(call.get(), call);
    call->entry.place = all.byDeadline.emplace(deadline, call.get());
    SetTimer(all, deadline);
    return true;
}

void EndCallsOn(GDBusConnection* connection)
{
    std::vector<CallPtr> lost;
    {
        Table& all = All();
        const Lock lock(all.mutex);
        for (const auto& [key, call] : all.calls) {
            if (call->entry.connection == connection) {
                lost.push_back(call);
            }
        }
    }
    EndAll(lost, Kind::BusGone, "the connection to the bus is lost");
}

Line& LineOf(Table& all, GDBusConnection* connection, const std::shared_ptr<ServerState>& server)
    SENNET_THREAD_SAFETY(requires_capability(all.mutex))
{
    Line& line = all.lines.try_emplace(connection, connection).first->second;
    if (line.loss == nullptr) {
        line.loss = LossWatch::Of(connection);
        if (line.loss != nullptr) {
            line.loss->OnLost(&all, [connection] { EndCallsOn(connection); });
        }
    }
    if (std::find(line.servers.begin(), line.servers.end(), server) == line.servers.end()) {
        line.servers.push_back(server);
    }
    return line;
}

// Returns the lines that nobody holds any more, to be destroyed after the lock.
std::vector<Line> LeaveLines(Table& all, const std::shared_ptr<ServerState>& server)
    SENNET_THREAD_SAFETY(requires_capability(all.mutex))
{
    std::vector<Line> left;
    for (auto entry = all.lines.begin(); entry != all.lines.end();) {
        Line& line = entry->second;
        const auto found = std::find(line.servers.begin(), line.servers.end(), server);
        if (found != line.servers.end()) {
            line.servers.erase(found);
        }
        if (!line.servers.empty()) {
            ++entry;
            continue;
        }
        line.leaves.StopAll(line.connection.get());
        left.push_back(std::move(line));
        entry = all.lines.erase(entry);
    }
    return left;
}

CallPtr FindAnswered(Table& all, GDBusConnection* connection, guint32 serial)
    SENNET_THREAD_SAFETY(requires_capability(all.mutex))
{
    const auto found = all.bySerial.find({connection, serial});
    if (found != all.bySerial.end()) {
        return all.calls.at(found->second);
    }
    for (PendingCall* const call : all.beingSent) {
        if (call->entry.connection == connection && call->entry.serial == serial) {
            return all.calls.at(call);
        }
    }
    return nullptr;
}

void NoteSignal(GDBusConnection* connection, GDBusMessage* signal)
{
    Table& all = All();
    const Lock lock(all.mutex);
    const auto line = all.lines.find(connection);
    if (line != all.lines.end()) {
        line->second.leaves.Note(signal);
    }
}

bool TakeAnswer(GDBusConnection* connection, GDBusMessage* answer)
{
    CallPtr call;
    bool ownerLeft = true;
    {
        Table& all = All();
        const Lock lock(all.mutex);
        call = FindAnswered(all, connection, g_dbus_message_get_reply_serial(answer));
        if (call == nullptr) {
            return false;
        }
        if (const auto line = all.lines.find(connection); line != all.lines.end()) {
            ownerLeft = line->second.leaves.HasLeft(call->entry.name, call->entry.ownerMark);
        }
    }
    call->End(CallOutcome(answer, ownerLeft));
    return true;
}

} // namespace

bool CallTable::MakeReady()
{
    Table& all = All();
    if (all.inUse) {
        return true;
    }
    GMainContext* const context = LibraryThread::Context();
    if (context == nullptr) {
        return false;
    }
    const Lock lock(all.mutex);
    if (!all.inUse) {
        all.timer = g_source_new(&g_TimerFunctions, sizeof(GSource));
        g_source_attach(all.timer, context);
        all.inUse = true;
    }
    return true;
}

void CallTable::Send(const CallPtr& call, const ServerLife& server, GDBusConnection* connection,
                     GDBusMessage* message, gint64 deadline)
{
    Table& all = All();
    PendingCall::Entry& entry = call->entry;
    {
        const Lock lock(all.mutex);
        if (!Enter(all, call, deadline)) {
            return;
        }
        entry.server = server.state;
        entry.connection = connection;
        entry.name = g_dbus_message_get_destination(message);
        entry.ownerMark =
            LineOf(all, connection, server.state).leaves.Listen(connection, entry.name);
        all.beingSent.push_back(call.get());
    }
    GError* raw = nullptr;
    const bool sent =
        g_dbus_connection_send_message(connection, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       &entry.serial, &raw) != 0;
    const ErrorPtr error(raw);
    {
        const Lock lock(all.mutex);
        const auto found = std::find(all.beingSent.begin(), all.beingSent.end(), call.get());
        if (found != all.beingSent.end()) { // the call has not ended
            all.beingSent.erase(found);
            all.bySerial[{connection, entry.serial}] = call.get();
        }
    }
    if (!sent) {
        const bool lost = g_dbus_connection_is_closed(connection) != 0;
        call->End({lost ? Kind::BusGone : Kind::Other, error ? error->message : "not sent"});
    }
}

void CallTable::Add(const CallPtr& call, const ServerLife& server, gint64 deadline)
{
    Table& all = All();
    const Lock lock(all.mutex);
    if (Enter(all, call, deadline)) {
        call->entry.server = server.state;
    }
}

void CallTable::Remove(PendingCall& call)
{
    Table& all = All();
    if (!all.inUse) {
        return;
    }
    const Lock lock(all.mutex);
    const auto found = all.calls.find(&call);
    if (found == all.calls.end()) {
        return;
    }
    all.byDeadline.erase(call.entry.place);
    all.bySerial.erase({call.entry.connection, call.entry.serial});
    const auto sending = std::find(all.beingSent.begin(), all.beingSent.end(), &call);
    if (sending != all.beingSent.end()) {
        all.beingSent.erase(sending);
    }
    all.calls.erase(found); // not the last reference: the caller has one
}

bool CallTable::TakesMessage(GDBusConnection* connection, GDBusMessage* message)
try {
    if (!All().inUse) {
        return false;
    }
    switch (g_dbus_message_get_message_type(message)) {
    case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
    case G_DBUS_MESSAGE_TYPE_ERROR:
        return TakeAnswer(connection, message);
    case G_DBUS_MESSAGE_TYPE_SIGNAL:
        if (g_strcmp0(g_dbus_message_get_member(message), "NameOwnerChanged") == 0) {
            NoteSignal(connection, message);
        }
        return false;
    default:
        return false;
    }
} catch (const std::bad_alloc&) { // must not pass through GDBus
    VELMORA_LOGE("out of memory: an answer is dropped");
    return false;
}

void CallTable::EndCallsOf(const ServerLife& server)
{
    Table& all = All();
    if (!all.inUse) {
        return;
    }
    std::vector<CallPtr> ended;
    std::vector<Line> left;
    {
        const Lock lock(all.mutex);
        for (const auto& [key, call] : all.calls) {
            if (call->entry.server == server.state) {
                ended.push_back(call);
            }
        }
        left = LeaveLines(all, server.state);
    }
    EndAll(ended, Kind::Closed, "the server that has sent the call is closed");
}

} // namespace Velmora::Internal
