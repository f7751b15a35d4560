// SPDX-License-Identifier: MIT
// Runs the default main loop, which dispatches what arrives on the bus, until the bus goes away.
#pragma once

#include <vector>

#include <gio/gio.h>

#include "GLibPtr.h"

namespace Ctl {

class BusLoop
{
public:
    // The connection must outlive this object.
    explicit BusLoop(GDBusConnection* bus);
    ~BusLoop();
    BusLoop(const BusLoop&) = delete;
    BusLoop& operator=(const BusLoop&) = delete;

    // Makes SIGINT and SIGTERM end Run() instead of the process.
    void EndOnSignals();

    // Runs until Quit(), and throws a Failure when the bus goes away. Returns false after the
    // timeout, which is in milliseconds; 0 means none.
    bool Run(int timeout = 0);

    void Quit(); // call this on the loop only

private:
    static gboolean OnSignal(gpointer self);
    static gboolean OnTimeout(gpointer self);
    static void OnClosed(BusLoop* self);

    Velmora::Internal::LoopPtr m_Loop;
    GDBusConnection* m_Bus;
    gulong m_ClosedHandler;
    std::vector<guint> m_Sources;
    bool m_BusIsGone = false;
    bool m_TimedOut = false;
};

} // namespace Ctl
