/// @file
/// The table of the signal subscriptions of one server.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TCMessage.h"

#pragma GCC visibility push(default)

namespace Velmora {

/// A client's function for a signal. Runs on the bus dispatch thread (see TCServer) with no lock of
/// the library held, and may call into the library.
/// @param from the service name that the sender has put into the signal; null if the body had no
///             known shape. It is the sender's own claim.
/// @param signalName the name of the signal
/// @param message what came with it; as the two texts, valid during the call only
/// @param userData what was given to TCServer::SubscribeSignal()
using TCSignalCallback = void (*)(const char* from, const char* signalName, TCMessage* message,
                                  void* userData);

/// One subscription.
struct STSignalControl
{
    std::string m_SignalName;      ///< as the client gave it
    TCSignalCallback m_Callback;   ///< may be null
    void* m_UserData;              ///< handed back to the callback
    unsigned int m_SubscriptionId; ///< of GDBus
};

/// The subscriptions of a server by their keys: the sender's bus name, "." and the signal's name,
/// or the signal's name alone for one from anyone. Every operation may be called on any thread: the
/// table guards itself, and calls nobody.
class __attribute__((visibility("default"))) TCServerSignalManager
{
public:
    /// All subscriptions are of the one kind there is.
    enum TCSignalType { SIGNAL_TYPE_NATIVE = 0 };

    TCServerSignalManager() = default;
    TCServerSignalManager(const TCServerSignalManager&) = delete;
    TCServerSignalManager& operator=(const TCServerSignalManager&) = delete;

    /// Empties the table.
    void Init();

    /// @return whether the key stands in the table
    bool IfSignalSubscribed(TCSignalType type, const std::string& key) const;

    /// Stores a record under the key, in place of one that stands there.
    void SubscribeNativeSignal(const std::string& key, const std::string& signalName,
                               TCSignalCallback callback, void* userData, unsigned int id);

    /// Removes the record of a key.
    /// @param type the one there is
    /// @param key as given when it was subscribed
    /// @param id receives the subscription's id, if there was one
    /// @return false if the key is unknown
    bool UnsubscribeSignal(TCSignalType type, const std::string& key, unsigned int& id);

    /// Finds what a signal is to be given to: the record of the key, else that of the signal name,
    /// so that a subscription to one sender comes before one to anyone.
    /// @return false, with a debug line, if there is neither
    bool GetHandlerForNativeSignal(const std::string& signalName, const std::string& key,
                                   TCSignalCallback& callback, void*& userData) const;

    /// Empties the table.
    /// @param ids receives the ids of all subscriptions in the order of their keys, in place of
    ///            what it held
    void Destroy(std::vector<unsigned int>& ids);

private:
    std::map<std::string, std::unique_ptr<STSignalControl>> m_SignalTable; ///< under #m_TableMutex
    mutable std::mutex m_TableMutex;
};

} // namespace Velmora

#pragma GCC visibility pop
