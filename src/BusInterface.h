// SPDX-License-Identifier: MIT
// The D-Bus interface of every service: its methods, and its description for GDBus.
#pragma once

#include <string>

namespace Velmora::Internal {

constexpr char kSendMessage[] = "SendMessage";
constexpr char kSendMessageWithBuffer[] = "SendMessageWithBuffer";

// The introspection data of an object with the interface of that name. The name must be legal: it
// is not quoted.
std::string InterfaceXml(const std::string& name);

} // namespace Velmora::Internal
