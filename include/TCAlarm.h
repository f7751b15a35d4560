// SPDX-License-Identifier: MIT
/// @file
/// A repeating timer on a main loop, and the millisecond clock.
#pragma once

#include <memory>
#include <mutex>

#include <glib.h>

#include "SennetApi.h"
#include "TCEventIO.h"

namespace Velmora {

/// The function of an alarm, called on the thread that runs the loop.
/// @param userData the pointer given to TCAlarm::SetAlarmCallback()
/// @return true to continue; false to stop the timer, even if the function has just restarted it
///         with TCAlarm::Reset() or TCAlarm::SetAlarmCallback()
using TCAlarmCallback = bool (*)(void* userData);

/// A repeating timer: calls a function at a fixed interval, a given number of times or for ever.
///
/// Order of use: construct; Create(); SetAlarmCallback(), which starts the timer; Reset() as often
/// as needed; Destroy(); destruct. The destructor does not stop the timer; it only releases the
/// loop.
///
/// Any thread may call any operation, also inside the callback. The callback runs with the alarm's
/// lock held: a call from another thread waits until it has returned. After Destroy() has returned,
/// the callback does not run any more. Then the alarm may be destructed on the loop's thread (not
/// inside the callback), or once the loop has stopped. On other threads this is not safe: a timer
/// that was about to fire may still be waiting for the lock.
///
/// If the lock cannot be taken, an operation throws `std::system_error`.
class SENNET_API TCAlarm
{
public:
    TCAlarm();
    ~TCAlarm();
    TCAlarm(const TCAlarm&) = delete;
    TCAlarm& operator=(const TCAlarm&) = delete;

    /// Sets where and how often the callback runs. Does not start the timer. If the alarm is
    /// created already, nothing changes. Takes the queue's lock, as a send does.
    /// @param io the queue whose loop carries the timer; null keeps the loop of an earlier
    ///           Create(), at first the global default context. A queue or task that is not set up
    ///           yet also means the global default context. The alarm takes the loop now and holds
    ///           it, together with the sources that are still attached to its context, until a
    ///           later Create() takes another one or the alarm is destructed. After a task has
    ///           ended, timers on its loop do not run any more.
    /// @param interval milliseconds, up to 4,294,967,295; 0 starts no timer
    /// @param count the number of runs, or VELMORA_INFINITY; 0 starts no timer
    /// @return true
    bool Create(TCEventIO* io, unsigned long interval, unsigned long count);

    /// Sets the function and starts or restarts the timer with the stored interval and count. After
    /// a timer has ended by itself, the stored count is VELMORA_INFINITY; use Reset() to set
    /// another.
    /// @return false, without any change, before Create() or if the function is null
    bool SetAlarmCallback(TCAlarmCallback callback, void* userData);

    /// Restarts the timer with other values. An interval or a count of 0 stops the timer; a later
    /// Reset() can start it again.
    /// @param interval milliseconds
    /// @param count the number of runs, or VELMORA_INFINITY
    /// @return false, without any change, if no function is set
    bool Reset(unsigned long interval, unsigned long count);

    /// Stops the timer and forgets the function. Does nothing on an alarm that is not created.
    void Destroy();

    /// @return milliseconds of the monotonic clock (POSIX CLOCK_MONOTONIC); needs no object
    static unsigned long GetTickCount();

    /// @cond internal
    struct Private; // the library's own operations, in src/
    /// @endcond

private:
    TCAlarmCallback m_Callback = nullptr;
    void* m_UserData = nullptr;
    std::unique_ptr<std::recursive_mutex> m_Mutex; ///< guards all other fields
    bool m_Created = false;
    GMainLoop* m_MainLoop = nullptr; ///< one reference
    /// Null when no timer runs. One reference: if the loop and its sources have ended, Destroy()
    /// must still find a valid source.
    GSource* m_Source = nullptr;
    unsigned long m_Interval = 0; ///< milliseconds
    unsigned long m_RepeatCount;  ///< runs that are left, or VELMORA_INFINITY
};

} // namespace Velmora
