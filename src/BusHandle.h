// SPDX-License-Identifier: MIT
// What GDBus holds of a server: one life of it, never its address, which another server may get.
#pragma once

#include <string>
#include <utility>

#include "BusFilter.h"
#include "GLibPtr.h"
#include "ServerLife.h"

namespace Velmora::Internal {

// The user data of a callback.
struct BusHandle
{
    explicit BusHandle(ServerLife itsLife) : life(std::move(itsLife)) {}
    virtual ~BusHandle() = default;
    BusHandle(const BusHandle&) = delete;
    BusHandle& operator=(const BusHandle&) = delete;

    static const ServerLife& LifeOf(void* handle) { return static_cast<BusHandle*>(handle)->life; }

    const ServerLife life;
};

// GDBus calls it where the callbacks run, when none of them uses the handle any more.
inline void FreeHandle(void* handle)
{
    delete static_cast<BusHandle*>(handle);
}

struct SubscriptionHandle : BusHandle
{
    SubscriptionHandle(ServerLife itsLife, std::string interfaceName, std::string member)
        : BusHandle(std::move(itsLife)), m_Plain(std::move(interfaceName), std::move(member))
    {}

private:
    const NoDescriptors m_Plain;
};

struct ObjectHandle : BusHandle
{
    ObjectHandle(ServerLife itsLife, std::string path)
        : BusHandle(std::move(itsLife)), m_Plain(std::move(path))
    {}

private:
    const NoDescriptors m_Plain;
};

// GDBus frees the handle of a name on the thread that gives up the name, while a callback may be
// starting on another thread. So this one frees itself where the callbacks run.
struct NameHandle : BusHandle
{
    explicit NameHandle(ServerLife itsLife)
        : BusHandle(std::move(itsLife)), m_Context(g_main_context_ref_thread_default())
    {}

    static void Free(void* data)
    {
        // The source must not hold its own context, so that an abandoned context is freed, and the
        // source with it.
        const ContextPtr context =
            std::move(static_cast<NameHandle*>(static_cast<BusHandle*>(data))->m_Context);
        GSource* const source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(
            source, [](void*) -> gboolean { return G_SOURCE_REMOVE; }, data, &FreeHandle);
        g_source_attach(source, context.get());
        g_source_unref(source);
    }

private:
    ContextPtr m_Context;
};

} // namespace Velmora::Internal
