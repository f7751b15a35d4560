// What GDBus holds of a server: one life of it, never its address, which the next server may have.
#pragma once

#include <string>
#include <utility>

#include "GLibPtr.h"
#include "IncomingFilter.h"
#include "LiveServers.h"

namespace Velmora::Internal {

// The user data of a callback.
struct BusHandle
{
    explicit BusHandle(Life itsLife) : life(std::move(itsLife)) {}
    virtual ~BusHandle() = default;
    BusHandle(const BusHandle&) = delete;
    BusHandle& operator=(const BusHandle&) = delete;

    static const Life& LifeOf(void* handle) { return static_cast<BusHandle*>(handle)->life; }

    const Life life;
};

// Frees what GDBus gives back where its callbacks run, when none of them uses it any more.
inline void FreeHandle(void* handle)
{
    delete static_cast<BusHandle*>(handle);
}

struct SubscriptionHandle : BusHandle
{
    SubscriptionHandle(Life itsLife, std::string interfaceName, std::string member)
        : BusHandle(std::move(itsLife)), m_Plain(std::move(interfaceName), std::move(member))
    {}

private:
    const NoDescriptors m_Plain;
};

struct ObjectHandle : BusHandle
{
    ObjectHandle(Life itsLife, std::string path)
        : BusHandle(std::move(itsLife)), m_Plain(std::move(path))
    {}

private:
    const NoDescriptors m_Plain;
};

// GDBus frees the one of a name on the thread that gives up the name, while a callback may just
// begin on the other one. So it is freed where the callbacks run.
struct NameHandle : BusHandle
{
    explicit NameHandle(Life itsLife)
        : BusHandle(std::move(itsLife)), m_Context(g_main_context_ref_thread_default())
    {}

    static void Free(void* data)
    {
        // Not held by what is queued on it, so that an abandoned context takes that along.
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
