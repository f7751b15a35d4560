// SPDX-License-Identifier: MIT
#include "BusLoop.h"

#include <csignal>

#include <glib-unix.h>

#include "Failure.h"

namespace Ctl {

BusLoop::BusLoop(GDBusConnection* bus)
    : m_Loop(g_main_loop_new(nullptr, FALSE)), m_Bus(bus),
      m_ClosedHandler(g_signal_connect_swapped(bus, "closed", G_CALLBACK(&OnClosed), this))
{}

BusLoop::~BusLoop()
{
    g_signal_handler_disconnect(m_Bus, m_ClosedHandler);
    for (const guint source : m_Sources) {
        g_source_remove(source);
    }
}

void BusLoop::EndOnSignals()
{
    m_Sources.push_back(g_unix_signal_add(SIGINT, &OnSignal, this));
    m_Sources.push_back(g_unix_signal_add(SIGTERM, &OnSignal, this));
}

bool BusLoop::Run(int timeout)
{
    if (timeout > 0) {
        m_Sources.push_back(g_timeout_add(static_cast<guint>(timeout), &OnTimeout, this));
    }
    g_main_loop_run(m_Loop.get());
    if (m_BusIsGone) {
        throw Failure(kFailed, "the bus has gone away");
    }
    return !m_TimedOut;
}

void BusLoop::Quit()
{
    g_main_loop_quit(m_Loop.get());
}

gboolean BusLoop::OnSignal(gpointer self)
{
    static_cast<BusLoop*>(self)->Quit();
    return G_SOURCE_CONTINUE; // removed by the destructor
}

gboolean BusLoop::OnTimeout(gpointer self)
{
    auto* const loop = static_cast<BusLoop*>(self);
    loop->m_TimedOut = true;
    loop->Quit();
    return G_SOURCE_CONTINUE;
}

void BusLoop::OnClosed(BusLoop* self)
{
    self->m_BusIsGone = true;
    self->Quit();
}

} // namespace Ctl
