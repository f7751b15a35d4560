// SPDX-License-Identifier: MIT
// Endpoints at the limits of their bus, which tight-bus.conf sets.
#include "BusHarness.h"

using namespace Velmora;

namespace {

constexpr int kMatchRules = 8;
constexpr int kReplies = 4;

class LimitsTest : public BusTest
{
protected:
    void SetUp() override
    {
        BusTest::SetUp();
        ASSERT_TRUE(app.CreateDBusServer() && proxy.CreateDBusProxy());
    }
};

} // namespace

TEST_F(LimitsTest, SubscriptionsBeyondTheMatchRulesStaySilent)
{
    const auto signal = [](int i) { return "signal" + std::to_string(i); };
    std::string heard;
    for (int i = 0; i <= kMatchRules; ++i) {
        EXPECT_TRUE(proxy.SubscribeSignal("app", signal(i).c_str(), nullptr, nullptr));
        heard += i < kMatchRules ? signal(i) + " app:;" : "";
    }
    for (int i = kMatchRules; i >= 0; --i) {
        EXPECT_TRUE(app.SendSignal(signal(i).c_str(), nullptr));
    }
    Await([&] { return proxy.Seen().size() == heard.size(); });
    EXPECT_EQ(proxy.Seen().find(signal(kMatchRules)), std::string::npos);

    const std::string last = signal(kMatchRules);
    EXPECT_TRUE(proxy.UnSubscribeSignal("app", signal(0).c_str())); // makes room
    EXPECT_TRUE(proxy.UnSubscribeSignal("app", last.c_str()));
    EXPECT_TRUE(proxy.SubscribeSignal("app", last.c_str(), nullptr, nullptr));
    EXPECT_TRUE(app.SendSignal(last.c_str(), nullptr));
    Await([&] { return proxy.Seen().find(last) != std::string::npos; });
}

TEST_F(LimitsTest, CallsBeyondThePendingRepliesFailUntilOthersEnd)
{
    {
        const ForeignService mute("peer.message", "mute");
        Await([&] { return proxy.IsServiceAvailable("peer"); });
        for (int i = 0; i < kReplies; ++i) {
            EXPECT_TRUE(proxy.SendMessage("peer", &message, false, &reply));
        }
        EXPECT_FALSE(proxy.SendMessage("peer", &message, true, &reply));
        EXPECT_EQ(CountLog(kError, "Fail to invoking sync message call("
                                   "GDBus.Error:org.freedesktop.DBus.Error.LimitsExceeded:*"),
                  1);
        EXPECT_TRUE(proxy.SendMessage("peer", &message, false, &reply));
        Await([&] { return CountLog(kError, "dbus finish fail!") == 1; });
        EXPECT_TRUE(proxy.IsServiceAvailable("peer")); // answered by the daemon itself
    }
    Await([&] { return CountLog(kError, "dbus finish fail!") == 1 + kReplies; });
    const ForeignService speaker("peer.message", "('p', uint32 1, '', '5')");
    Await([&] { return proxy.IsServiceAvailable("peer"); });
    EXPECT_TRUE(proxy.SendMessage("peer", &message, true, &reply));
}

TEST_F(LimitsTest, MessageTooLargeForTheBusCostsTheConnectionAndNoMore)
{
    const TCMessage tooLarge = Message("x", 65536);
    Internal::ConnectionPtr held; // the lost connection, by another part of the process
    for (int round = 0; round < 3; ++round) {
        EXPECT_FALSE(proxy.SendMessage("elsewhere", &tooLarge, true, &reply));
        EXPECT_EQ(CountLog(kError, "Fail to invoking sync message call(*"), 1);
        Await([&] { return !app.SendSignal("signal", nullptr); });
        EXPECT_GE(CountLog(kError, "dbus connection is not open"), 1);
        EXPECT_FALSE(proxy.SendMessage("elsewhere", &message, true, &reply));
        Await([&] { // until GDBus has released the lost connection, unless it is held
            app.CloseDBusServer();
            if (!held) {
                proxy.CloseDBusProxy();
            }
            return app.CreateDBusServer();
        });
        EXPECT_TRUE(app.SendSignal("signal", nullptr));
        proxy.CloseDBusProxy();
        ASSERT_TRUE(proxy.CreateDBusProxy());
        Await([&] { return proxy.IsServiceAvailable("app"); });
        if (!held) {
            held.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
        }
        ForgetLog();
    }
}
