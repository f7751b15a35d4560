#include "TCAlarm.h"

#include <utility>

#include <time.h>

#include "GLibPtr.h"
#include "MutexGuard.h"

namespace Velmora {

using namespace Internal;

using Guard = std::lock_guard<std::recursive_mutex>;

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
    // Taken before, and what it replaces released after the alarm's lock: a queue's lock may be
    // held where a client uses the alarm, and a loop that goes takes the client's sources with it.
    LoopPtr loop(io != nullptr ? m_RefLoop(*io) : nullptr);
    const Guard guard(*m_Mutex);
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

// A task takes its loop out of the queue under this lock before it releases it.
GMainLoop* TCAlarm::m_RefLoop(TCEventIO& io)
{
    const MutexGuard guard(io.m_QueueMutex);
    GMainLoop* const loop = io.m_MainLoop;
    return loop != nullptr ? g_main_loop_ref(loop) : nullptr;
}

bool TCAlarm::SetAlarmCallback(TCAlarmCallback callback, void* userData)
{
    const Guard guard(*m_Mutex);
    if (!m_Created || callback == nullptr) {
        return false;
    }
    m_Callback = callback;
    m_UserData = userData;
    m_StopTimer();
    m_StartTimer();
    return true;
}

bool TCAlarm::Reset(unsigned long interval, unsigned long count)
{
    const Guard guard(*m_Mutex);
    if (m_Callback == nullptr) {
        return false;
    }
    m_StopTimer();
    m_Interval = interval;
    m_RepeatCount = count;
    m_StartTimer();
    return true;
}

void TCAlarm::Destroy()
{
    const Guard guard(*m_Mutex);
    if (!m_Created) {
        return;
    }
    m_StopTimer();
    m_Callback = nullptr;
    m_UserData = nullptr;
    m_Interval = 0;
    m_RepeatCount = kForEver;
    m_Created = false;
}

void TCAlarm::m_StartTimer()
{
    if (m_Interval == 0 || m_RepeatCount == 0) {
        return;
    }
    m_Source = g_timeout_source_new(static_cast<guint>(m_Interval));
    GMainContext* const context =
        m_MainLoop != nullptr ? g_main_loop_get_context(m_MainLoop) : g_main_context_default();
    g_source_set_callback(m_Source, &TCAlarm::m_GSourceFunc, this, nullptr);
    g_source_attach(m_Source, context);
}

void TCAlarm::m_StopTimer()
{
    if (m_Source != nullptr) {
        DestroySource(std::exchange(m_Source, nullptr));
    }
}

gboolean TCAlarm::m_GSourceFunc(void* data)
{
    auto* const alarm = static_cast<TCAlarm*>(data);
    if (alarm == nullptr || alarm->m_Mutex == nullptr) {
        return G_SOURCE_REMOVE;
    }
    const Guard guard(*alarm->m_Mutex);
    if (alarm->m_Source != g_main_current_source()) {
        return G_SOURCE_REMOVE; // stopped or replaced while this dispatch waited for the lock
    }
    const bool forEver = alarm->m_RepeatCount == kForEver;
    if (forEver || alarm->m_RepeatCount > 0) {
        if (!forEver) {
            --alarm->m_RepeatCount;
        }
        if (alarm->m_Callback(alarm->m_UserData)) {
            return G_SOURCE_CONTINUE;
        }
    }
    alarm->m_StopTimer(); // also one that the callback has started before it said no
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
