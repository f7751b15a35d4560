// What the library does not give: who is on the bus, and connections to watch it with.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "GLibPtr.h"

namespace Ctl {

using ConnectionPtr = std::unique_ptr<GDBusConnection, Velmora::Internal::Releaser<g_object_unref>>;

// The connection that the library uses, too.
ConnectionPtr ConnectToBus();

// One of its own, to be turned into a monitor.
ConnectionPtr ConnectPrivately();

// Calls the bus itself and returns the answer, of the type given; a failure is thrown.
Velmora::Internal::VariantPtr CallBus(GDBusConnection* bus, const char* interface,
                                      const char* method, GVariant* arguments,
                                      const char* answerType);

struct BusService
{
    std::string name;    // the service name, of an activity with its owner's before it
    std::string busName; // what the bus knows it by
    std::string owner;   // the unique name of its connection
};

// By name.
std::vector<BusService> ListServices(GDBusConnection* bus);

// Whether a name is the bus name, which is the interface name, too, of a service.
bool IsServiceBusName(const std::string& busName);

// The service name, as far as the bus name has kept it; another name stays as it is.
std::string ServiceName(const std::string& busName);

// The bus name of a service name that was given as an argument, which is refused if there is none.
std::string RequireBusName(const std::string& service);

// Refuses an argument that is no name of a signal.
void RequireSignalName(const std::string& signal);

} // namespace Ctl
