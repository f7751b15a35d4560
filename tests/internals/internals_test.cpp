// SPDX-License-Identifier: MIT
// Inner parts that the other tests reach only through a bus or by chance.
#include <future>
#include <optional>

#include "BusBody.h"
#include "BusInputHold.h"
#include "Harness.h"
#include "ServerLife.h"
#include "SyncPair.h"

using namespace Velmora;
using namespace Velmora::Internal;

namespace {

VariantPtr Owned(GVariant* floating)
{
    return VariantPtr(g_variant_ref_sink(floating));
}

} // namespace

TEST(Body, IsReadAsItWasBuiltAndNotAtAllIfItHasAnotherShape)
{
    const struct
    {
        const char* shape;
        BusBody::Use use;
        std::string buffer;
    } built[] = {
        {"(suss)", BusBody::Use::Request, ""},
        {"(sussa(y))", BusBody::Use::Request, "b"},
        {"(sussa(y))", BusBody::Use::Reply, {0, 0}},
        {"(sussa(y))", BusBody::Use::Reply, ""},
    };
    for (const auto& c : built) {
        TCMessage message, copy;
        message.m_Code = 7;
        message.m_Type = "t";
        message.SetMessage("x");
        message.SetBuffer(reinterpret_cast<const unsigned char*>(c.buffer.data()),
                          static_cast<unsigned int>(c.buffer.size()));
        const std::string from = "me";
        const VariantPtr body = Owned(BusBody(from, message, c.use).Build());
        EXPECT_STREQ(g_variant_get_type_string(body.get()), c.shape);
        const ParsedBody parsed = ParseBody(body.get());
        EXPECT_EQ(parsed.from, from);
        parsed.CopyInto(copy);
        unsigned char* bytes = nullptr;
        const unsigned int size = copy.GetBuffer(bytes);
        EXPECT_EQ(copy.m_Type + copy.GetMessage() + std::to_string(copy.m_Code), "tx7");
        EXPECT_EQ(std::string(bytes, bytes + size), c.buffer);
    }
    for (const char* const hostile :
         {"()", "(1,)", "(('me', uint32 7, 't', 'x'),)", "('me', 7, 't', 'x')", "('me', uint32 7)",
          "(<'me'>, uint32 7, 't', 'x')", "('me', uint32 7, 't', 'x', b'plain')",
          "('me', uint32 7, 't', 'x', [(byte 1, 'pair')])", "('me', uint32 7, 't', 'x', [<1>])",
          "('me', uint32 7, 't', 'x', {'k': <[[<1>]]>})",
          "('me', uint32 7, 't', 'x', [(byte 1,)], 'more')"}) {
        TCMessage message;
        message.SetMessage("before");
        const VariantPtr body = Owned(g_variant_new_parsed(hostile));
        const ParsedBody parsed = ParseBody(body.get());
        parsed.CopyInto(message);
        EXPECT_TRUE(parsed.from == nullptr && parsed.buffer == nullptr) << hostile;
        EXPECT_EQ(message.GetMessage(), "before") << hostile;
    }
}

TEST(Life, CallbackEntersItsOwnLifeOnlyAndItsEndWaitsForIt)
{
    std::optional<TCServer> server(std::in_place, "server", TCServer::SERVER_TYPE_PROXY);
    TCServer* const address = &*server;
    EXPECT_FALSE(ServerPin(address)); // not created yet
    const ServerLife first = ServerLives::BeginCreate(address);
    std::atomic<bool> left{false};
    std::promise<void> inside;
    std::thread callback([&] {
        const ServerPin pin(first);
        EXPECT_TRUE(pin && &*pin == address);
        inside.set_value();
        Await([&] { return !ServerPin(first); }); // the end has begun
        left = true;
    });
    inside.get_future().wait();
    ServerLives::AwaitEnd(ServerLives::End(address));
    EXPECT_TRUE(left);
    const ServerLife second = ServerLives::BeginCreate(address);
    EXPECT_FALSE(ServerPin(first));
    EXPECT_TRUE(ServerPin(second) && ServerPin(address));
    callback.join();
    server.reset();
    EXPECT_FALSE(ServerPin(second) || ServerPin(address));
}

TEST(InputHold, KeepsTheWorkerUntilTheLastOneEndsButNotForEver)
{
    auto first = std::make_unique<BusInputHold>(), second = std::make_unique<BusInputHold>();
    std::atomic<bool> over{false};
    const gint64 limit = g_get_monotonic_time() + G_USEC_PER_SEC;
    std::thread worker([&] {
        BusInputHold::AwaitRelease();
        EXPECT_TRUE(over || g_get_monotonic_time() >= limit);
    });
    first.reset();
    g_usleep(20000); // a worker that does not wait comes first
    over = true;
    second.reset();
    worker.join();
    const BusInputHold forEver;
    BusInputHold::AwaitRelease();
}

TEST(SyncPair, IsFreedByTheSideThatUsesItLast)
{
    EXPECT_TRUE(MakeSyncPair()); // freed by its sender, as no receiver has seen it
    for (int i = 0; i < 1000; ++i) {
        SyncPairPtr pair = MakeSyncPair();
        TCSemaphore* const received = pair.get();
        std::thread receiver([received] {
            AnswerSyncPair(received);
            FreeSyncPair(received);
        });
        pair[0].Take();
        LeaveSyncPair(std::move(pair));
        receiver.join();
    }
}
