// SPDX-License-Identifier: MIT
// Runs callables on a main context, and on the library's own threads.
#pragma once

#include <functional>

#include <glib.h>

namespace Velmora::Internal {

// Runs the callable once on the context, at default priority and in the order of the posts. If the
// context is freed before, the callable is destroyed unrun.
void PostToContext(GMainContext* context, std::function<void()> callable);

// The thread of the library: for results that no thread of the client waits for, for time limits
// and for the loss of the bus. Callables on it must not wait for the client. It starts with its
// first use and never ends.
class LibraryThread
{
public:
    // Returns null, with an error line, if there is no thread to be had.
    static GMainContext* Context();

    // Returns false, with an error line, if there is no thread to be had; the callable is then
    // destroyed unrun.
    static bool Run(std::function<void()> callable);

    // Whether the calling thread is this one.
    static bool IsCurrent();
};

// A thread for what has to wait for the lock of a client's queue. Otherwise the same.
class WaitingThread
{
public:
    static bool Run(std::function<void()> callable);
};

} // namespace Velmora::Internal
