// SPDX-License-Identifier: MIT
#include "BusNames.h"

#include <gio/gio.h>

namespace Velmora::Internal {

namespace {

bool IsNameByte(char byte)
{
    return g_ascii_isalnum(byte) != 0 || byte == '.' || byte == '_';
}

} // namespace

std::string AppendSuffix(const std::string& serviceName)
{
    return serviceName + ".message";
}

bool MakeLegal(std::string& name)
{
    bool changed = false;
    for (char& byte : name) {
        if (!IsNameByte(byte)) {
            byte = '_';
            changed = true;
        }
    }
    return changed;
}

bool IsInterfaceName(const std::string& name)
{
    return g_dbus_is_interface_name(name.c_str()) != 0;
}

bool IsMemberName(const std::string& name)
{
    // GDBus does not check the length, and the bus drops the connection for a longer one.
    return name.size() <= kMaxName && g_dbus_is_member_name(name.c_str()) != 0;
}

} // namespace Velmora::Internal
