// SPDX-License-Identifier: MIT
// Sends to the echo service: synchronously, with a buffer, and asynchronously.
#include <cstdio>
#include <cstring>

#include "MainLoop.h"
#include "sennet.h"

using namespace Velmora;

namespace {

constexpr char kService[] = "example.echo";

class Client : public TCServer
{
public:
    explicit Client(MainLoop& loop) : TCServer("example.client", SERVER_TYPE_PROXY), m_Loop(loop) {}

protected:
    bool IfMessageReplied(const char* from, const TCMessage* message) override
    {
        std::printf("asynchronous: %s answers %s\n", from, message->GetString().c_str());
        m_Loop.Quit();
        return true;
    }

private:
    MainLoop& m_Loop;
};

bool Talk(Client& client)
{
    while (!client.IsServiceAvailable(kService)) {
        g_usleep(10000);
    }
    TCMessage message;
    message.m_Json["greeting"] = "hello";
    TCMessage reply;
    if (!client.SendMessage(kService, &message, true, &reply)) {
        return false;
    }
    std::printf("synchronous: %s\n", reply.GetMessage().c_str());

    const unsigned char bytes[] = {1, 2, 3};
    message.SetBuffer(bytes, sizeof bytes);
    if (!client.SendMessage(kService, &message, true, &reply)) {
        return false;
    }
    unsigned char* back = nullptr;
    const unsigned int size = reply.GetBuffer(back);
    std::printf("with a buffer: %u bytes\n", size);
    return size == sizeof bytes && std::memcmp(back, bytes, size) == 0;
}

} // namespace

int main()
{
    SetAppName("echo_client");
    MainLoop loop;
    TCScope<Client> client(loop);
    if (!client || !Talk(*client)) {
        return 1;
    }
    TCMessage message;
    message.m_Json["greeting"] = "later";
    TCMessage wanted; // only requests an answer
    if (!client->SendMessage(kService, &message, false, &wanted)) {
        return 1;
    }
    loop.Run();
    return 0;
}
