// SPDX-License-Identifier: MIT
#include "TCServerSignalManager.h"

#include "Locks.h"
#include "TCLog.h"

namespace Velmora {

using namespace Internal;

void TCServerSignalManager::Init()
{
    const Lock lock(m_TableMutex);
    m_SignalTable.clear();
}

bool TCServerSignalManager::IfSignalSubscribed(TCSignalType /*type*/, const std::string& key) const
{
    const Lock lock(m_TableMutex);
    return m_SignalTable.count(key) > 0;
}

void TCServerSignalManager::SubscribeNativeSignal(const std::string& key,
                                                  const std::string& signalName,
                                                  TCSignalCallback callback, void* userData,
                                                  unsigned int id)
{
    auto record = std::make_unique<STSignalControl>();
    *record = {signalName, callback, userData, id};
    const Lock lock(m_TableMutex);
    m_SignalTable[key] = std::move(record);
}

bool TCServerSignalManager::UnsubscribeSignal(TCSignalType /*type*/, const std::string& key,
                                              unsigned int& id)
{
    {
        const Lock lock(m_TableMutex);
        const auto found = m_SignalTable.find(key);
        if (found == m_SignalTable.end()) {
            return false;
        }
        id = found->second->m_SubscriptionId;
        m_SignalTable.erase(found);
    }
    VELMORA_LOGI("UnSubscribeSignal %s(%d)", key.c_str(), static_cast<int>(id));
    return true;
}

bool TCServerSignalManager::GetHandlerForNativeSignal(const std::string& signalName,
                                                      const std::string& key,
                                                      TCSignalCallback& callback,
                                                      void*& userData) const
{
    {
        const Lock lock(m_TableMutex);
        auto found = m_SignalTable.find(key);
        if (found == m_SignalTable.end()) {
            found = m_SignalTable.find(signalName);
        }
        if (found != m_SignalTable.end()) {
            callback = found->second->m_Callback;
            userData = found->second->m_UserData;
            return true;
        }
    }
    VELMORA_LOGD("cannot find %s", key.c_str());
    return false;
}

void TCServerSignalManager::Destroy(std::vector<unsigned int>& ids)
{
    ids.clear();
    const Lock lock(m_TableMutex);
    for (const auto& [key, record] : m_SignalTable) {
        ids.push_back(record->m_SubscriptionId);
    }
    m_SignalTable.clear();
}

} // namespace Velmora
