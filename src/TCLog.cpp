// SPDX-License-Identifier: MIT
#include "TCLog.h"

namespace Velmora {

std::string g_AppName = "nil";

const char* GetProjectName()
{
    return g_AppName.c_str();
}

const char* GetAppName()
{
    return GetProjectName();
}

void SetAppName(const char* name)
{
    g_AppName = name != nullptr ? name : "nil";
}

} // namespace Velmora
