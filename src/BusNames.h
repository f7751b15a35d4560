// SPDX-License-Identifier: MIT
// The names of services as the bus knows them.
//
// The bus name of a service is its service name followed by ".message". The same text is the name
// of its interface, and with slashes for its dots the path of its object (made by
// TCServerHelper::GetObjectPath()).
#pragma once

#include <cstddef>
#include <string>

namespace Velmora::Internal {

constexpr std::size_t kMaxName = 255; // bytes; D-Bus protocol, "Valid Names"

// Returns the bus name before MakeLegal(), so that log lines can show the name as it was given.
std::string AppendSuffix(const std::string& serviceName);

// Replaces every byte that no name of the library may have by "_". Returns whether any was
// replaced.
bool MakeLegal(std::string& name);

// D-Bus's rule for interface names. A bus name of the library is also an interface name, and this
// rule is stricter than the one for bus names.
bool IsInterfaceName(const std::string& name);
bool IsMemberName(const std::string& name);

} // namespace Velmora::Internal
