// SPDX-License-Identifier: MIT
// Connections to the bus, and requests to the bus daemon itself, which the library does not offer.
#pragma once

#include <string>
#include <vector>

#include <gio/gio.h>

#include "GLibPtr.h"

namespace Ctl {

using Velmora::Internal::ConnectionPtr;

// The connection of this process, which the library uses as well.
ConnectionPtr ConnectToBus();

// A separate connection, which can become a monitor.
ConnectionPtr ConnectPrivately();

// Calls a method of the bus daemon and returns its answer, which must have the given type. Throws a
// Failure if the call fails.
Velmora::Internal::VariantPtr CallBusDaemon(GDBusConnection* bus, const char* interface,
                                            const char* method, GVariant* arguments,
                                            const char* answerType);

struct BusService
{
    std::string name;    // the service name; that of an activity begins with its owner's name
    std::string busName; // the well-known name on the bus
    std::string owner;   // the unique name of its connection
};

// The services on the bus, sorted by name.
std::vector<BusService> ListServices(GDBusConnection* bus);

} // namespace Ctl
