// SPDX-License-Identifier: MIT
#include "TCAlarm.h"

#include <utility>

#include <time.h>

#include "Check.h"
#include "GLibPtr.h"
#include "Locks.h"
#include "TCEventIOPrivate.h"

namespace Velmora {

using namespace Internal;

// The alarm's lock is held in each of these.
struct __attribute__((visibility("hidden"))) TCAlarm::Private
{
    static void StartTimer(TCAlarm& alarm);
    static void StopTimer(TCAlarm& alarm);
    static gboolean OnTimer(void* data);
};

namespace {

const auto kForEver = static_cast<unsigned long>(VELMORA_INFINITY);

} // namespace

TCAlarm::TCAlarm() : m_Mutex(std::make_unique<std::recursive_mutex>()), m_RepeatCount(kForEver) {}

TCAlarm::~TCAlarm()
{
    if (m_MainLoop != nullptr) {
        g_main_loop_unref(m_MainLoop);
    }
}

bool TCAlarm::Create(TCEventIO* io, unsigned long interval, unsigned long count)
{
    // The new loop is taken before the alarm's lock, because a client may use the alarm where it
    // holds the queue's lock. The replaced one is released after it, because that may destroy the
    // client's sources.
    LoopPtr loop(io != nullptr ? TCEventIO::Private::RefLoop(*io) : nullptr);
    const Lock lock(*m_Mutex);
    if (m_Created) {
        return true;
    }
    if (io != nullptr) {
        GMainLoop* const replaced = std::exchange(m_MainLoop, loop.release());
        loop.reset(replaced);
    }
    m_Created = true;
    m_Interval = interval;
    m_RepeatCount = count;
    return true;
}

bool TCAlarm::SetAlarmCallback(TCAlarmCallback callback, void* userData)
{
    const Lock lock(*m_Mutex);
    if (!m_Created || callback == nullptr) {
        return false;
    }
    m_Callback = callback;
    m_UserData = userData;
    Private::StopTimer(*this);
    Private::StartTimer(*this);
    return true;
}

bool TCAlarm::Reset(unsigned long interval, unsigned long count)
{
    const Lock lock(*m_Mutex);
    if (m_Callback == nullptr) {
        return false;
    }
    SENNET_CHECK(m_Created);
    Private::StopTimer(*this);
    m_Interval = interval;
    m_RepeatCount = count;
    Private::StartTimer(*this);
    return true;
}

void TCAlarm::Destroy()
{
    const Lock lock(*m_Mutex);
    if (!m_Created) {
        return;
    }
    Private::StopTimer(*this);
    m_Callback = nullptr;
    m_UserData = nullptr;
    m_Interval = 0;
    m_RepeatCount = kForEver;
    m_Created = false;
}

void TCAlarm::Private::StartTimer(TCAlarm& alarm)
{
    SENNET_CHECK(alarm.m_Created && alarm.m_Callback != nullptr && alarm.m_Source == nullptr);
    if (alarm.m_Interval == 0 || alarm.m_RepeatCount == 0) {
        return;
    }
    alarm.m_Source = g_timeout_source_new(static_cast<guint>(alarm.m_Interval));
    GMainContext* const context = alarm.m_MainLoop != nullptr
                                      ? g_main_loop_get_context(alarm.m_MainLoop)
                                      : g_main_context_default();
    g_source_set_callback(alarm.m_Source, &OnTimer, &alarm, nullptr);
    g_source_attach(alarm.m_Source, context);
}

void TCAlarm::Private::StopTimer(TCAlarm& alarm)
{
    if (alarm.m_Source != nullptr) {
        DestroySource(std::exchange(alarm.m_Source, nullptr));
    }
}

gboolean TCAlarm::Private::OnTimer(void* data)
{
    auto* const alarm = static_cast<TCAlarm*>(data);
    if (alarm == nullptr || alarm->m_Mutex == nullptr) {
        return G_SOURCE_REMOVE;
    }
    const Lock lock(*alarm->m_Mutex);
    if (alarm->m_Source != g_main_current_source()) {
        return G_SOURCE_REMOVE; // stopped or replaced while this dispatch waited for the lock
    }
    SENNET_CHECK(alarm->m_Created && alarm->m_Callback != nullptr);
    const bool forEver = alarm->m_RepeatCount == kForEver;
    if (forEver || alarm->m_RepeatCount > 0) {
        if (!forEver) {
            --alarm->m_RepeatCount;
        }
        if (alarm->m_Callback(alarm->m_UserData)) {
            return G_SOURCE_CONTINUE;
        }
    }
    StopTimer(*alarm); // even if the callback has started it before it returned false
    alarm->m_RepeatCount = kForEver;
    return G_SOURCE_REMOVE;
}

unsigned long TCAlarm::GetTickCount()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<unsigned long>(now.tv_sec) * 1000 +
           static_cast<unsigned long>(now.tv_nsec) / 1000000;
}

} // namespace Velmora
