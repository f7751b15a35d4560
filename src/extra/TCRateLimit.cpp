// SPDX-License-Identifier: MIT
#include "TCRateLimit.h"

#include <algorithm>

#include "InboundCall.h"
#include "Locks.h"
#include "TCCaller.h"
#include "TCLog.h"
#include "extra/LruMap.h"

namespace Velmora {

using namespace Internal;

namespace {

constexpr std::size_t kMaxCallers = 256;

struct Bucket
{
    double tokens;
    gint64 filled; // when, by the monotonic clock
};

} // namespace

struct __attribute__((visibility("hidden"))) TCRateLimit::Impl
{
    Impl(double perSecond, unsigned int size, Per itsPer)
        : perMicrosecond(std::max(perSecond, 0.0) / G_USEC_PER_SEC), burst(std::max(size, 1U)),
          per(itsPer)
    {}

    const double perMicrosecond;
    const double burst;
    const Per per;
    Mutex mutex;
    LruMap<Bucket> buckets SENNET_THREAD_SAFETY(guarded_by(mutex)){kMaxCallers};

    std::string KeyOf(const InboundCall& call) const
    {
        if (call.Connection() == nullptr || per == Per::Connection) {
            return call.Sender();
        }
        const auto user = TCCaller::Current().User();
        return user.has_value() ? std::to_string(*user) : "unknown";
    }

    bool Take(const std::string& key)
    {
        const gint64 now = g_get_monotonic_time();
        const Lock lock(mutex);
        Bucket* bucket = buckets.Find(key);
        if (bucket == nullptr) {
            bucket = &buckets.Add(key, {burst, now});
        }
        const double gained = static_cast<double>(now - bucket->filled) * perMicrosecond;
        bucket->tokens = std::min(burst, bucket->tokens + gained);
        bucket->filled = now;
        if (bucket->tokens < 1) {
            return false;
        }
        bucket->tokens -= 1;
        return true;
    }
};

TCRateLimit::TCRateLimit(double perSecond, unsigned int burst, Per per)
    : m_Impl(std::make_unique<Impl>(perSecond, burst, per))
{}

TCRateLimit::~TCRateLimit() = default;

bool TCRateLimit::Take()
{
    const InboundCall* const call = InboundCall::Current();
    if (call == nullptr) {
        VELMORA_LOGE("no hook runs on this thread: there is no caller to limit");
        return false;
    }
    return m_Impl->Take(m_Impl->KeyOf(*call));
}

} // namespace Velmora
