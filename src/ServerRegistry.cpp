// SPDX-License-Identifier: MIT
#include "ServerRegistry.h"

#include "Locks.h"

namespace Velmora {

using namespace Internal;

namespace {

// Guards TCServer::m_CreatedDbusServers, which is a field of a public class and cannot name it.
// Held for one operation of the map, never during a call of the bus or of a client.
Mutex g_RegistryMutex;

} // namespace

TCServer* ServerRegistry::Find(const char* name)
{
    const Lock lock(g_RegistryMutex);
    const auto found = m_CreatedDbusServers.find(name);
    return found != m_CreatedDbusServers.end() ? found->second : nullptr;
}

ServerPin ServerRegistry::Enter(const char* name, std::string* busName)
{
    const Lock lock(g_RegistryMutex);
    const auto found = m_CreatedDbusServers.find(name);
    ServerPin server =
        found != m_CreatedDbusServers.end() ? PinEntry(found->first, found->second) : ServerPin();
    if (server) {
        *busName = server->m_DBusName; // constant while the server is registered
    }
    return server;
}

ServerPin ServerRegistry::Require(const char* name)
{
    std::string busName;
    ServerPin server = name != nullptr ? Enter(name, &busName) : ServerPin();
    if (!server) {
        if (name != nullptr) {
            VELMORA_LOGE("Couldn't find %s dbus server, subscribe fail", name);
        } else {
            VELMORA_LOG_NULL("source");
        }
        VELMORA_LOG_NULL("server");
    }
    return server;
}

bool ServerRegistry::Check(const TCServer& server, std::string& service)
{
    Verdict verdict = Verdict::Free;
    {
        const Lock lock(g_RegistryMutex);
        service = FindService();
        verdict = Judge(server, service);
    }
    return Report(server, verdict);
}

bool ServerRegistry::Add(TCServer& server)
{
    Verdict verdict = Verdict::Free;
    {
        const Lock lock(g_RegistryMutex);
        verdict = Judge(server, FindService());
        if (verdict == Verdict::Free) {
            m_CreatedDbusServers[server.m_ServiceName] = &server;
        }
    }
    return Report(server, verdict);
}

void ServerRegistry::AddUnchecked(TCServer& server)
{
    const Lock lock(g_RegistryMutex);
    m_CreatedDbusServers[server.m_ServiceName] = &server;
}

void ServerRegistry::Remove(const TCServer& server)
{
    const Lock lock(g_RegistryMutex);
    const auto found = m_CreatedDbusServers.find(server.m_ServiceName);
    if (found != m_CreatedDbusServers.end() && found->second == &server) {
        m_CreatedDbusServers.erase(found);
    }
}

ServerPin ServerRegistry::PinEntry(const std::string& name, TCServer* entry)
{
    g_RegistryMutex.AssertHeld();
    ServerPin server(entry);
    if (server && server->m_ServiceName != name) {
        server.Close();
    }
    return server;
}

std::string ServerRegistry::FindService()
{
    g_RegistryMutex.AssertHeld();
    for (const auto& [name, entry] : m_CreatedDbusServers) {
        const ServerPin server = PinEntry(name, entry);
        if (server && server->m_ServerType == SERVER_TYPE_SERVICE) {
            return name;
        }
    }
    return "";
}

ServerRegistry::Verdict ServerRegistry::Judge(const TCServer& server, const std::string& service)
{
    g_RegistryMutex.AssertHeld();
    if (m_CreatedDbusServers.count(server.m_ServiceName) > 0) {
        return Verdict::NameUsed;
    }
    return service.empty() || server.m_ServerType != SERVER_TYPE_SERVICE ? Verdict::Free
                                                                         : Verdict::SecondService;
}

bool ServerRegistry::Report(const TCServer& server, Verdict verdict)
{
    switch (verdict) {
    case Verdict::Free:
        return true;
    case Verdict::NameUsed:
        VELMORA_LOGE("%s name has been used!", server.m_ServiceName.c_str());
        return false;
    case Verdict::SecondService:
        VELMORA_LOGE("only one eflapplication/daemon service can be created in one process!");
        return false;
    }
    return false;
}

} // namespace Velmora
