// SPDX-License-Identifier: MIT
// What sennet/testing.h offers to users, used as they use it.
#include <gtest/gtest.h>

#include "sennet-extra.h"
#include "sennet/testing.h"

using namespace Velmora;
using Velmora::Testing::StubService;

namespace {

class Client : public TCServer
{
public:
    Client() : TCServer("client", SERVER_TYPE_SERVICE) {}
};

using StubTest = Velmora::Testing::BusTest;

TCMessage Ask(Client& client, const std::string& text, unsigned int buffer = 0)
{
    TCMessage request, reply;
    request.SetMessage(text);
    const std::vector<unsigned char> bytes(buffer, 'b');
    request.SetBuffer(bytes.data(), buffer);
    EXPECT_TRUE(client.SendMessage("weather", &request, true, &reply));
    return reply;
}

} // namespace

TEST_F(StubTest, AnswersAndRecords)
{
    StubService weather("weather");
    TCScope<Client> client;
    ASSERT_TRUE(client);
    weather.On("temperature?", "21.5");
    EXPECT_EQ(Ask(*client, "temperature?").GetString(), "21.5");
    EXPECT_EQ(Ask(*client, "humidity?", 3).GetString(), "");
    weather.OnAny([](const TCMessage& request, TCMessage& reply) { reply = request; });
    unsigned char* bytes = nullptr;
    EXPECT_EQ(Ask(*client, "humidity?", 3).GetBuffer(bytes), 3U);
    ASSERT_EQ(weather.Requests().size(), 3U);
    EXPECT_EQ(weather.Requests()[1].GetString(), "humidity?");
}

TEST_F(StubTest, LeavesTheBusAndEmits)
{
    TCScope<Client> client;
    std::promise<std::string> heard;
    const auto subscription =
        SubscribeOwnerSignal(*client, "weather", "changed",
                             [&heard](const char*, const char*, const TCMessage& message) {
                                 heard.set_value(message.GetString());
                             });
    {
        StubService weather("weather");
        EXPECT_TRUE(client->IsServiceAvailable("weather")); // so the bus knows the subscription
        weather.Emit("changed", "rain");
        EXPECT_EQ(heard.get_future().get(), "rain");
    }
    EXPECT_EQ(TCCall().Start(*client, "weather", TCMessage()).get().kind,
              TCCallResult::Kind::NoService);
}
