// SPDX-License-Identifier: MIT
// Follows the owner of a bus name.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <gio/gio.h>

namespace Velmora::Internal {

// Used on the library's thread alone, and owned by a shared_ptr. Between Start() and Stop() it is
// held by GDBus.
class OwnerTracker : public std::enable_shared_from_this<OwnerTracker>
{
public:
    // Takes the former and the new owner, unique names; empty for none. The first call tells the
    // owner that was found.
    using OnChange = std::function<void(const std::string& former, const std::string& owner)>;

    OwnerTracker(std::string busName, OnChange onChange)
        : m_BusName(std::move(busName)), m_OnChange(std::move(onChange))
    {}

    void Start(GDBusConnection* connection);
    // The callback is not called from now on.
    void Stop(GDBusConnection* connection);
    // The server or the bus has ended: nobody owns the name any more, as far as one can know.
    void End(GDBusConnection* connection);

    // Empty until the bus has told.
    const std::optional<std::string>& Owner() const { return m_Owner; }

private:
    using Self = std::shared_ptr<OwnerTracker>;

    static void OnSignal(GDBusConnection* connection, const char* sender, const char* path,
                         const char* interfaceName, const char* signalName, GVariant* parameters,
                         void* self);
    static void OnAnswer(GObject* source, GAsyncResult* result, void* self);
    void Set(const std::string& owner);

    const std::string m_BusName;
    OnChange m_OnChange;
    std::optional<std::string> m_Owner;
    unsigned int m_Subscription = 0;
};

} // namespace Velmora::Internal
