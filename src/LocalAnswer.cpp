// SPDX-License-Identifier: MIT
#include "LocalAnswer.h"

#include <atomic>
#include <map>
#include <utility>
#include <vector>

#include "Locks.h"

namespace Velmora::Internal {

namespace {

class OpenAnswer
{
public:
    explicit OpenAnswer(AnswerTaker take) : m_Take(std::move(take)) {}

    bool Give(const TCMessage* answer)
    {
        AnswerTaker take;
        {
            const Lock lock(m_Mutex);
            take.swap(m_Take);
        }
        return take && take(answer);
    }

private:
    Mutex m_Mutex;
    AnswerTaker m_Take SENNET_THREAD_SAFETY(guarded_by(m_Mutex)); // empty once it is given
};

struct OpenAnswers
{
    Mutex mutex;
    std::multimap<const ServerState*, std::shared_ptr<OpenAnswer>>
        ofService SENNET_THREAD_SAFETY(guarded_by(mutex));
    std::atomic<std::size_t> count{0}; // written under the mutex
};

// Never destroyed: a server of static storage may be the last one.
OpenAnswers& All()
{
    static auto& all = *new OpenAnswers;
    return all;
}

class LocalAnswer : public AnswerLater
{
public:
    LocalAnswer(const ServerLife& service, AnswerTaker take)
        : m_Service(service.state), m_Open(std::make_shared<OpenAnswer>(std::move(take)))
    {
        OpenAnswers& all = All();
        const Lock lock(all.mutex);
        all.ofService.emplace(m_Service.get(), m_Open);
        all.count = all.ofService.size();
    }
    ~LocalAnswer() override
    {
        m_Open->Give(nullptr);
        OpenAnswers& all = All();
        const Lock lock(all.mutex);
        const auto range = all.ofService.equal_range(m_Service.get());
        for (auto entry = range.first; entry != range.second; ++entry) {
            if (entry->second == m_Open) {
                all.ofService.erase(entry);
                break;
            }
        }
        all.count = all.ofService.size();
    }
    LocalAnswer(const LocalAnswer&) = delete;
    LocalAnswer& operator=(const LocalAnswer&) = delete;

    bool Answer(const TCMessage& message) override { return m_Open->Give(&message); }

private:
    const std::shared_ptr<ServerState> m_Service; // its address is the key
    const std::shared_ptr<OpenAnswer> m_Open;
};

} // namespace

std::unique_ptr<AnswerLater> OpenLocalAnswer(const ServerLife& service, AnswerTaker take)
{
    return std::make_unique<LocalAnswer>(service, std::move(take));
}

void FailLocalAnswers(const ServerLife& service)
{
    OpenAnswers& all = All();
    if (all.count == 0) {
        return;
    }
    std::vector<std::shared_ptr<OpenAnswer>> open;
    {
        const Lock lock(all.mutex);
        const auto range = all.ofService.equal_range(service.state.get());
        for (auto entry = range.first; entry != range.second; ++entry) {
            open.push_back(entry->second);
        }
    }
    for (const auto& answer : open) {
        answer->Give(nullptr);
    }
}

} // namespace Velmora::Internal
