// SPDX-License-Identifier: MIT
// Service names, the bus names that belong to them, and signal names.
#pragma once

#include <string>

namespace Ctl {

// Whether a bus name is that of a service. The interface of a service has the same name.
bool IsServiceBusName(const std::string& busName);

// The service name of a bus name, which has '_' where the original name has another character that
// D-Bus does not allow. Returns any other name unchanged.
std::string ServiceName(const std::string& busName);

// The bus name of a service that the user has named; throws a Failure if the name is not valid.
std::string RequireBusName(const std::string& service);

// Throws a Failure if the signal name that the user has given is not valid.
void RequireSignalName(const std::string& signal);

} // namespace Ctl
