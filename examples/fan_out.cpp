// SPDX-License-Identifier: MIT
// Three calls at once, with one time limit. Their results come together.
#include <cstdio>
#include <vector>

#include "sennet-extra.h"

using namespace Velmora;

namespace {

class Client : public TCServer
{
public:
    Client() : TCServer("example.client", SERVER_TYPE_PROXY) {}
};

} // namespace

int main()
{
    SetAppName("fan_out");
    TCScope<Client> client;
    if (!client) {
        return 1;
    }
    std::vector<TCCallRequest> requests;
    for (const char* const room : {"kitchen", "bath", "attic"}) {
        requests.push_back({"example.meter", TCMessage()});
        requests.back().message.m_Json["room"] = room;
    }
    const unsigned long start = TCAlarm::GetTickCount();
    TCCall call;
    const std::vector<TCCallResult> results = call.All(*client, requests, 2000).get();
    for (const TCCallResult& result : results) {
        std::printf("%s %s\n", ToString(result.kind),
                    result ? result.reply.GetString().c_str() : result.text.c_str());
    }
    std::printf("after %lu ms\n", TCAlarm::GetTickCount() - start);
    return 0;
}
