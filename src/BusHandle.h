// SPDX-License-Identifier: MIT
// What GDBus holds of a server: one life of it, never its address, which another server may get.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "BusFilter.h"
#include "Crossing.h"
#include "GLibPtr.h"
#include "ServerLife.h"

namespace Velmora::Internal {

// The user data of a callback. Make() is the way to make one.
struct BusHandle
{
    template <typename Handle, typename... Arguments>
    static std::unique_ptr<BusHandle> Make(Arguments&&... arguments)
    {
        auto handle = std::make_unique<Handle>(std::forward<Arguments>(arguments)...);
        handle->crossing.Leave();
        return handle;
    }

    explicit BusHandle(ServerLife itsLife) : life(std::move(itsLife)) {}
    virtual ~BusHandle() = default;
    BusHandle(const BusHandle&) = delete;
    BusHandle& operator=(const BusHandle&) = delete;

    static const ServerLife& LifeOf(void* data)
    {
        const auto* const handle = static_cast<BusHandle*>(data);
        handle->crossing.Arrive();
        return handle->life;
    }

    const ServerLife life;
    Crossing crossing;
};

// GDBus calls it where the callbacks run, when none of them uses the handle any more.
inline void FreeHandle(void* data)
{
    const std::unique_ptr<BusHandle> handle(static_cast<BusHandle*>(data));
    handle->crossing.Arrive();
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
        auto* const handle = static_cast<NameHandle*>(static_cast<BusHandle*>(data));
        handle->crossing.Arrive();
        const ContextPtr context = std::move(handle->m_Context);
        handle->crossing.Leave();
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
