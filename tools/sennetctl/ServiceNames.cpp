// SPDX-License-Identifier: MIT
#include "ServiceNames.h"

#include <string_view>

#include <gio/gio.h>

#include "Failure.h"
#include "TCServer.h"

namespace Ctl {

namespace {

constexpr std::string_view kSuffix = ".message";
constexpr std::size_t kMaxNameSize = 255; // limit of D-Bus, in bytes

} // namespace

bool IsServiceBusName(const std::string& busName)
{
    return busName.size() > kSuffix.size() &&
           busName.compare(busName.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0;
}

std::string ServiceName(const std::string& busName)
{
    return IsServiceBusName(busName) ? busName.substr(0, busName.size() - kSuffix.size()) : busName;
}

std::string RequireBusName(const std::string& service)
{
    std::string busName = Velmora::TCServer::m_GetDBusName(service);
    if (service.empty() || g_utf8_validate(service.c_str(), -1, nullptr) == FALSE ||
        g_dbus_is_name(busName.c_str()) == FALSE ||
        g_dbus_is_interface_name(busName.c_str()) == FALSE) {
        throw Failure(kUsage, "\"" + service + "\" is not a valid service name");
    }
    return busName;
}

void RequireSignalName(const std::string& signal)
{
    if (signal.size() > kMaxNameSize || g_dbus_is_member_name(signal.c_str()) == FALSE) {
        throw Failure(kUsage, "\"" + signal + "\" is not a valid signal name");
    }
}

} // namespace Ctl
