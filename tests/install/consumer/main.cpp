// SPDX-License-Identifier: MIT
// Uses each layer of the library, and prints the bus name of a service.
#include <cstdio>

#include <sennet.h>

int main(int /*argc*/, char** argv)
{
    Velmora::TCTask task("consumer");
    if (!task.Create("consumer")) {
        return 1;
    }
    Velmora::TCEvent event;
    event.receiver = &task;
    event.data.m_Json["key"] = 1;
    Velmora::SendEvent(&event);
    task.Destroy();
    std::puts(Velmora::TCServer::m_GetDBusName(argv[1]).c_str());
    return 0;
}
