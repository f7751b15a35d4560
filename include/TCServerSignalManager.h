// SPDX-License-Identifier: MIT
/// @file
/// The table of the signal subscriptions of one server.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "SennetApi.h"
#include "TCMessage.h"

namespace Velmora {

/// A client's function for a signal. Runs on the bus dispatch thread (see TCServer) while the
/// library holds no lock, and may call the library. The pointers are valid during the call only.
/// @param from the service name that the sender claims; null for a body of an unknown shape
/// @param signalName the name of the signal
/// @param message what was sent with it
/// @param userData as passed to TCServer::SubscribeSignal()
using TCSignalCallback = void (*)(const char* from, const char* signalName, TCMessage* message,
                                  void* userData);

/// One subscription.
struct STSignalControl
{
    std::string m_SignalName;      ///< as passed by the client
    TCSignalCallback m_Callback;   ///< may be null
    void* m_UserData;              ///< passed to the callback
    unsigned int m_SubscriptionId; ///< of GDBus
};

/// The signal subscriptions of one server. The key of a subscription is the sender's bus name, "."
/// and the signal's name; for any sender, only the signal's name. Every operation may be called on
/// any thread.
class SENNET_API TCServerSignalManager
{
public:
    /// The kinds of subscription; there is only one.
    enum TCSignalType { SIGNAL_TYPE_NATIVE = 0 };

    TCServerSignalManager() = default;
    TCServerSignalManager(const TCServerSignalManager&) = delete;
    TCServerSignalManager& operator=(const TCServerSignalManager&) = delete;

    /// Empties the table.
    void Init();

    /// @return whether the table has the key
    bool IfSignalSubscribed(TCSignalType type, const std::string& key) const;

    /// Stores a record under the key; replaces an earlier one.
    void SubscribeNativeSignal(const std::string& key, const std::string& signalName,
                               TCSignalCallback callback, void* userData, unsigned int id);

    /// Removes the record of a key.
    /// @param type ignored
    /// @param key as in SubscribeNativeSignal()
    /// @param id receives the subscription's id, if there was one
    /// @return false if the key is unknown
    bool UnsubscribeSignal(TCSignalType type, const std::string& key, unsigned int& id);

    /// Finds the callback for a signal. A subscription to one sender (the key) comes before one to
    /// any sender (the signal's name).
    /// @return false, with a debug line, if there is neither
    bool GetHandlerForNativeSignal(const std::string& signalName, const std::string& key,
                                   TCSignalCallback& callback, void*& userData) const;

    /// Empties the table.
    /// @param ids receives the ids of all subscriptions, in the order of their keys; its earlier
    ///            content is lost
    void Destroy(std::vector<unsigned int>& ids);

private:
    std::map<std::string, std::unique_ptr<STSignalControl>> m_SignalTable; // under m_TableMutex
    mutable std::mutex m_TableMutex;
};

} // namespace Velmora
