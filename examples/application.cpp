// SPDX-License-Identifier: MIT
// An application with an activity: a second endpoint in the process, whose bus name starts with the
// name of the first.
#include <cstdio>

#include "MainLoop.h"
#include "sennet.h"

using namespace Velmora;

namespace {

class Page : public TCServer
{
public:
    Page() : TCServer("page", SERVER_TYPE_ACTIVITY) {}

protected:
    bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        std::printf("page: %s asks for %s\n", from, message->GetString().c_str());
        reply->m_Json["shown"] = true;
        return true;
    }
};

} // namespace

int main()
{
    SetAppName("application");
    MainLoop loop;
    TCScope<TCServer> application("example.app", TCServer::SERVER_TYPE_SERVICE);
    const TCScope<Page> page;
    if (!application || !page) {
        return 1;
    }
    // Other processes send to it as "example.app.page".
    std::printf("the page's bus name is %s\n", TCServer::m_GetDBusName("page").c_str());

    TCMessage request;
    request.SetMessage("the first screen");
    TCMessage reply;
    const bool sent = application->SendMessage("page", &request, true, &reply); // without the bus
    std::printf("application: %s\n", reply.GetMessage().c_str());
    loop.Run();
    return sent ? 0 : 1;
}
