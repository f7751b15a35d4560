// SPDX-License-Identifier: MIT
// A client whose steps follow each other in a C++20 coroutine, while its main loop goes on.
#include <coroutine>
#include <cstdio>
#include <exception>

#include "MainLoop.h"
#include "sennet-extra.h"

using namespace Velmora;

namespace {

// A coroutine that starts at once and that nobody waits for.
struct Coroutine
{
    struct promise_type
    {
        Coroutine get_return_object() { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
};

class Client : public TCServer
{
public:
    Client() : TCServer("example.client", SERVER_TYPE_PROXY) {}
};

// The arguments must live until the end: main() has them.
Coroutine Talk(TCServer& client, MainLoop& loop)
{
    TCMessage message;
    message.SetMessage("first");
    for (int step = 1; step <= 3; ++step) {
        const TCCallResult result = co_await TCCall().Await(client, "example.echo", message);
        if (!result) {
            std::printf("%s: %s\n", ToString(result.kind), result.text.c_str());
            break;
        }
        std::printf("step %d: %s\n", step, result.reply.GetString().c_str());
        message.SetMessage(result.reply.GetString() + " and next");
    }
    loop.Quit();
}

} // namespace

int main()
{
    SetAppName("coroutine_client");
    MainLoop loop;
    TCScope<Client> client;
    if (!client) {
        return 1;
    }
    Talk(*client, loop);
    loop.Run();
    return 0;
}
