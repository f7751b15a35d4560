// SPDX-License-Identifier: MIT
// The open servers of the process by service name: TCServer::m_CreatedDbusServers and its lock.
//
// An entry may be stale: a server that was destroyed without a close leaves its entry, and another
// server may have that address by now. So an entry is used only through a pin.
#pragma once

#include <string>

#include "TCServerPrivate.h"

namespace Velmora {

// All operations may be called on any thread.
class TCServer::Private::Registry
{
public:
    // The server as it was entered, or null.
    static TCServer* Find(const char* name);

    // Pins the server and copies its bus name. The pin is not open if there is no such server.
    static Internal::ServerPin Enter(const char* name, std::string* busName);

    // Pins a server that the client has named as its own; if there is none, writes error lines.
    static Internal::ServerPin Require(const char* name);

    // Checks that the server may open next to the others; otherwise writes an error line. `service`
    // receives the name of the open service of the process, empty if there is none.
    static bool Check(const TCServer& server, std::string& service);

    // Checks the same, and enters the server if it may open.
    static bool Add(TCServer& server);
    static void AddUnchecked(TCServer& server);

    // Does nothing if the entry of that name is another server's.
    static void Remove(const TCServer& server);

private:
    enum class Verdict { Free, NameUsed, SecondService };

    static Internal::ServerPin PinEntry(const std::string& name, TCServer* entry);
    static std::string FindService();
    static Verdict Judge(const TCServer& server, const std::string& service);
    static bool Report(const TCServer& server, Verdict verdict);
};

namespace Internal {
using ServerRegistry = TCServer::Private::Registry;
} // namespace Internal
} // namespace Velmora
