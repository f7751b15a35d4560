// SPDX-License-Identifier: MIT
// The main loop of an example, which dispatches what arrives on the bus. SIGTERM and SIGINT end it.
#pragma once

#include <csignal>

#include <glib-unix.h>

class MainLoop
{
public:
    MainLoop() : m_Loop(g_main_loop_new(nullptr, FALSE))
    {
        g_unix_signal_add(SIGTERM, &MainLoop::OnSignal, this);
        g_unix_signal_add(SIGINT, &MainLoop::OnSignal, this);
    }
    ~MainLoop() { g_main_loop_unref(m_Loop); }
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    void Run() { g_main_loop_run(m_Loop); }
    void Quit() { g_main_loop_quit(m_Loop); }

private:
    static gboolean OnSignal(gpointer self)
    {
        static_cast<MainLoop*>(self)->Quit();
        return G_SOURCE_CONTINUE;
    }

    GMainLoop* m_Loop;
};
