// SPDX-License-Identifier: MIT
// RAII types for what the library holds of GLib.
#pragma once

#include <memory>

#include <gio/gio.h>

namespace Velmora::Internal {

template <auto Release>
struct Releaser
{
    template <typename T>
    void operator()(T* object) const
    {
        Release(object);
    }
};

using ErrorPtr = std::unique_ptr<GError, Releaser<g_error_free>>;
using VariantPtr = std::unique_ptr<GVariant, Releaser<g_variant_unref>>;
using ConnectionPtr = std::unique_ptr<GDBusConnection, Releaser<g_object_unref>>;
using ListPtr = std::unique_ptr<GList, Releaser<g_list_free>>; // not its elements
using LoopPtr = std::unique_ptr<GMainLoop, Releaser<g_main_loop_unref>>;
using ContextPtr = std::unique_ptr<GMainContext, Releaser<g_main_context_unref>>;

// Ends a source for good: without the destroy its context would go on dispatching it.
inline void DestroySource(GSource* source)
{
    g_source_destroy(source);
    g_source_unref(source);
}

} // namespace Velmora::Internal
