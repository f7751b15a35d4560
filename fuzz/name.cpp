// SPDX-License-Identifier: MIT
// Service names, turned into bus names and object paths.
#include <string>

#include <gio/gio.h>

#include "Check.h"
#include "TCServer.h"

using namespace Velmora;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string raw(reinterpret_cast<const char*>(data), size);
    std::string name = raw;
    Check(TCServerHelper::FormatDBusName(name) == (name != raw));
    Check(name.size() == raw.size());
    for (const char byte : name) {
        Check(g_ascii_isalnum(byte) != 0 || byte == '.' || byte == '_');
    }
    std::string again = name;
    Check(!TCServerHelper::FormatDBusName(again) && again == name);
    Check(TCServer::m_GetDBusName(raw) == name + ".message");

    const std::string path = TCServerHelper::GetObjectPath(name);
    Check(TCServerHelper::GetObjectPath(path.substr(1)) == path);
    if (g_dbus_is_name(name.c_str()) != 0) {
        Check(g_variant_is_object_path(path.c_str()) != 0);
    }
    return 0;
}
