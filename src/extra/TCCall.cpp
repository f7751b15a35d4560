// SPDX-License-Identifier: MIT
#include "TCCall.h"

#include <algorithm>
#include <utility>

#include "TCLog.h"
#include "TCServerPrivate.h"
#include "extra/CallGroup.h"

namespace Velmora {

using namespace Internal;

using GroupPtr = std::shared_ptr<CallGroup>;

struct __attribute__((visibility("hidden"))) TCCall::Impl
{
    Mutex mutex;
    // The last call and, if it was started in a callback, those whose callbacks have not returned.
    std::vector<GroupPtr> groups SENNET_THREAD_SAFETY(guarded_by(mutex));

    // Makes the group that takes the results; null if the last one is not over.
    GroupPtr Begin(std::size_t size, Delivery where, CallGroup::IfUndelivered ifUndelivered,
                   CallGroup::Handler handler)
    {
        const Lock lock(mutex);
        if (!groups.empty() && !groups.back()->HasBegun()) {
            return nullptr;
        }
        groups.erase(std::remove_if(groups.begin(), groups.end(),
                                    [](const GroupPtr& group) { return group->IsOver(); }),
                     groups.end());
        groups.push_back(
            CallGroup::Make(size, std::move(where), ifUndelivered, std::move(handler)));
        return groups.back();
    }

    std::vector<GroupPtr> Groups()
    {
        const Lock lock(mutex);
        return groups;
    }
};

namespace {

constexpr char kBusy[] = "the last call of this object has not ended";

// What is to be called: one message, or several.
struct Requests
{
    const char* dest;
    const TCMessage* message;
    const std::vector<TCCallRequest>* several; // instead of both

    std::size_t Size() const { return several != nullptr ? several->size() : 1; }
};

Delivery WhereOf(const TCCallOptions& options)
{
    return options.queue != nullptr ? Delivery::ToQueue(*options.queue)
                                    : Delivery::ToContext(options.context);
}

// Nothing that the caller owns is touched once the last call may have ended.
void StartCalls(TCServer& server, const GroupPtr& group, const Requests& requests, int timeout)
{
    std::size_t index = 0;
    for (const auto& call : group->Calls()) {
        const TCCallRequest* const one =
            requests.several != nullptr ? &(*requests.several)[index++] : nullptr;
        TCServer::Private::StartCall(server, call,
                                     one != nullptr ? one->dest.c_str() : requests.dest,
                                     one != nullptr ? one->message : *requests.message, timeout);
    }
    group->NoteStarted();
}

CallResults RefusedResults(std::size_t size)
{
    CallResults results(size);
    for (TCCallResult& result : results) {
        result.kind = TCCallResult::Kind::Refused;
        result.text = kBusy;
    }
    return results;
}

// Returns false, with an error line, if the call cannot begin.
bool StartWithCallback(TCCall::Impl& impl, TCServer& server, const Requests& requests,
                       CallGroup::Handler handler, const TCCallOptions& options)
{
    const GroupPtr group = impl.Begin(requests.Size(), WhereOf(options),
                                      CallGroup::IfUndelivered::Destroy, std::move(handler));
    if (group == nullptr) {
        VELMORA_LOGE("cannot start a call: %s", kBusy);
        return false;
    }
    StartCalls(server, group, requests, options.timeout);
    return true;
}

// `take` makes what the future holds of the results.
template <typename Result, typename Take>
std::future<Result> StartWithFuture(TCCall::Impl& impl, TCServer& server, const Requests& requests,
                                    int timeout, const Take& take)
{
    const auto promise = std::make_shared<std::promise<Result>>();
    std::future<Result> future = promise->get_future();
    const GroupPtr group = impl.Begin(
        requests.Size(), Delivery::ToLibraryThread(), CallGroup::IfUndelivered::CallOnLibraryThread,
        [promise, take](CallResults& results) { promise->set_value(take(results)); });
    if (group != nullptr) {
        StartCalls(server, group, requests, timeout);
    } else {
        CallResults refused = RefusedResults(requests.Size());
        promise->set_value(take(refused));
    }
    return future;
}

} // namespace

TCCall::TCCall() : m_Impl(std::make_unique<Impl>()) {}

TCCall::~TCCall()
{
    for (const GroupPtr& group : m_Impl->Groups()) {
        group->Abandon();
    }
}

bool TCCall::Start(TCServer& server, const char* dest, const TCMessage& message, Callback callback,
                   const TCCallOptions& options)
{
    if (!callback) {
        VELMORA_LOG_NULL("callback");
        return false;
    }
    return StartWithCallback(
        *m_Impl, server, {dest, &message, nullptr},
        [callback = std::move(callback)](CallResults& results) { callback(results.front()); },
        options);
}

std::future<TCCallResult> TCCall::Start(TCServer& server, const char* dest,
                                        const TCMessage& message, int timeout)
{
    return StartWithFuture<TCCallResult>(
        *m_Impl, server, {dest, &message, nullptr}, timeout,
        [](CallResults& results) { return std::move(results.front()); });
}

bool TCCall::All(TCServer& server, const std::vector<TCCallRequest>& requests, AllCallback callback,
                 const TCCallOptions& options)
{
    if (!callback) {
        VELMORA_LOG_NULL("callback");
        return false;
    }
    return StartWithCallback(
        *m_Impl, server, {nullptr, nullptr, &requests},
        [callback = std::move(callback)](CallResults& results) { callback(results); }, options);
}

std::future<std::vector<TCCallResult>>
TCCall::All(TCServer& server, const std::vector<TCCallRequest>& requests, int timeout)
{
    return StartWithFuture<CallResults>(*m_Impl, server, {nullptr, nullptr, &requests}, timeout,
                                        [](CallResults& results) { return std::move(results); });
}

void TCCall::Cancel()
{
    for (const GroupPtr& group : m_Impl->Groups()) {
        group->Cancel();
    }
}

bool TCCall::m_Await(TCServer& server, const char* dest, const TCMessage* message,
                     const std::vector<TCCallRequest>* requests, const TCCallOptions& options,
                     CallResults& results, GroupPtr& group, Resume resume, void* coroutine)
{
    const Requests wanted{dest, message, requests};
    // The coroutine may end on another thread, with this object, before the calls are started: so
    // the group is held here, too.
    const GroupPtr begun = m_Impl->Begin(wanted.Size(), WhereOf(options),
                                         CallGroup::IfUndelivered::CallOnLibraryThread,
                                         [&results, resume, coroutine](CallResults& ended) {
                                             results = std::move(ended);
                                             resume(coroutine);
                                         });
    if (begun == nullptr) {
        results = RefusedResults(wanted.Size());
        return false;
    }
    group = begun;
    StartCalls(server, begun, wanted, options.timeout);
    return true;
}

void Internal::Detach(const GroupPtr& group)
{
    if (group != nullptr) {
        group->Detach();
        group->Cancel();
    }
}

} // namespace Velmora
