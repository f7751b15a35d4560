// The default main loop, on which the bus calls in, for as long as there is a bus.
#pragma once

#include <vector>

#include <gio/gio.h>

#include "GLibPtr.h"

namespace Ctl {

class BusLoop
{
public:
    // The connection is watched and must outlive this.
    explicit BusLoop(GDBusConnection* bus);
    ~BusLoop();
    BusLoop(const BusLoop&) = delete;
    BusLoop& operator=(const BusLoop&) = delete;

    // From here on SIGINT and SIGTERM end Run() instead of the process.
    void EndOnSignals();

    // Until Quit(), which only what runs on this loop calls. A bus that goes away is thrown.
    // timeout: in milliseconds, 0 for none. Returns false if it has passed.
    bool Run(int timeout = 0);

    void Quit();

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
