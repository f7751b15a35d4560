/// @file
/// A repeating timer on a main loop, and the millisecond clock.
#pragma once

#include <memory>
#include <mutex>

#include <glib.h>

#include "TCEventIO.h"

#pragma GCC visibility push(default)

namespace Velmora {

/// The client's function of an alarm, called on the thread that runs the loop.
/// @param userData what was given to TCAlarm::SetAlarmCallback()
/// @return true asks for further runs; false ends the timer at once, also one that the function has
///         just started itself with Reset() or SetAlarmCallback(): such a call returns true
using TCAlarmCallback = bool (*)(void* userData);

/// A repeating timer: calls a function at a fixed interval, a given number of times or for ever.
///
/// Order of use: construct; Create(); SetAlarmCallback(), which starts the timer; Reset() as often
/// as needed; Destroy(); destruct. The destructor does not stop a timer; it lets go of the loop.
///
/// Every operation may be called on any thread, and from inside the callback. The callback runs
/// with the alarm's lock held: a call from another thread waits until it has returned, and once
/// Destroy() has returned the callback is not running and does not run again. Destroying the object
/// right after that is safe on the loop's thread, though not inside the callback, and when the loop
/// has stopped; elsewhere a timer that was just about to fire may still be waiting for the lock.
///
/// If the lock cannot be had, `std::system_error` is thrown.
class __attribute__((visibility("default"))) TCAlarm
{
public:
    TCAlarm();
    ~TCAlarm();
    TCAlarm(const TCAlarm&) = delete;
    TCAlarm& operator=(const TCAlarm&) = delete;

    /// Says where and how often the callback is to run. Starts nothing. Changes nothing on an alarm
    /// that is created already.
    /// @param io the queue whose loop carries the timer. The loop is taken at this moment, and held
    ///           until a later Create() takes another one or the alarm is destructed; when a task
    ///           has ended, timers on its loop do not run any more. A queue or task that is not set
    ///           up yet means the global default context. Null keeps the loop of an earlier
    ///           Create(), at first the global default context. With the loop, what clients have
    ///           left attached to its context stays. This takes the queue's lock as a send does.
    /// @param interval milliseconds, up to 4,294,967,295; 0 starts no timer
    /// @param count how many runs, or VELMORA_INFINITY; 0 starts no timer
    /// @return true
    bool Create(TCEventIO* io, unsigned long interval, unsigned long count);

    /// Sets the function and starts the timer, or starts it anew, with the interval and the count
    /// that are stored. After a timer has ended by itself the count is VELMORA_INFINITY: Reset()
    /// runs it again a number of times.
    /// @return false, and nothing changes, before Create() or with a null function
    bool SetAlarmCallback(TCAlarmCallback callback, void* userData);

    /// Starts the timer anew with other values; with an interval or a count of 0 it stops it and
    /// keeps it ready.
    /// @param interval milliseconds
    /// @param count runs, or VELMORA_INFINITY
    /// @return false, and nothing changes, while no function is set
    bool Reset(unsigned long interval, unsigned long count);

    /// Stops the timer and forgets the function. Nothing happens on an alarm that is not created.
    void Destroy();

    /// @return milliseconds of the monotonic clock (POSIX CLOCK_MONOTONIC); needs no object
    static unsigned long GetTickCount();

private:
    [[gnu::visibility("hidden")]] static gboolean m_GSourceFunc(void* alarm);
    [[gnu::visibility("hidden")]] static GMainLoop* m_RefLoop(TCEventIO& io);
    [[gnu::visibility("hidden")]] void m_StartTimer();
    [[gnu::visibility("hidden")]] void m_StopTimer();

    TCAlarmCallback m_Callback = nullptr;
    void* m_UserData = nullptr;
    std::unique_ptr<std::recursive_mutex> m_Mutex; ///< guards all other fields
    bool m_Created = false;
    GMainLoop* m_MainLoop = nullptr; ///< one reference
    /// Null when no timer runs. One reference, so that Destroy() after the end of the loop, and of
    /// all its sources, meets a source that is over and not a freed one.
    GSource* m_Source = nullptr;
    unsigned long m_Interval = 0; ///< milliseconds
    unsigned long m_RepeatCount;  ///< runs that are left, or VELMORA_INFINITY
};

} // namespace Velmora

#pragma GCC visibility pop
