// SPDX-License-Identifier: MIT
// Producers, cross sends, synchronous sends, pings, deletions and clearings at once: every
// accepted event that was sent by value gets exactly one OnClear.
#include <atomic>
#include <memory>

#include "Harness.h"

using namespace Velmora;

namespace {

constexpr unsigned long kSync = 100, kTracked = 101, kCrossing = 102;

class Peer : public TCTask
{
public:
    Peer() : TCTask("peer") {}

    Peer* other = nullptr;
    std::atomic<int> accepted{0}, cleared{0}, handled{0};

    void Track(unsigned long id, bool urgent)
    {
        auto token = std::make_unique<int>(); // a second OnClear would free it twice
        TCEvent event = Event(this, id, token.get());
        event.data.m_Json["n"] = 1;
        if (urgent ? SendUrgentEvent(&event) : SendEvent(&event)) {
            static_cast<void>(token.release());
            ++accepted;
        }
    }

protected:
    bool t_OnEvent(const TCEvent* event) override
    {
        ++handled;
        if (event->id == kCrossing) {
            other->Track(kTracked, handled % 2 == 0);
        }
        return TCTask::t_OnEvent(event);
    }
    void t_Clear(TCEvent* event) override
    {
        if (event->id == kTracked || event->id == kCrossing) {
            ++cleared;
            delete static_cast<int*>(event->param.p);
        }
        TCTask::t_Clear(event);
    }
};

} // namespace

TEST(Stress, EveryAcceptedEventIsClearedExactlyOnce)
{
    for (int round = 0; round < 3; ++round) {
        Peer peers[2];
        for (const int i : {0, 1}) {
            peers[i].other = &peers[1 - i];
            ASSERT_TRUE(peers[i].Create("peer"));
        }
        constexpr int kRounds = 2000;
        const auto track = [&peers](int first) {
            for (int i = 0; i < kRounds; ++i) {
                peers[(i + first) % 2].Track(i % 3 == 0 ? kCrossing : kTracked, i % 7 == 0);
            }
        };
        const auto wait = [&peers] {
            for (int i = 0; i < kRounds / 10; ++i) {
                TCEvent event = Event(&peers[i % 2], kSync);
                EXPECT_TRUE(SendSyncEvent(&event) || i % 2 == 1);
                TCEventIO::Ping(&peers[i % 2], 0);
            }
        };
        const auto clear = [&peers] {
            for (int i = 0; i < kRounds / 10; ++i) {
                peers[i % 2].DeleteEvent(kTracked, nullptr);
                SendUrgent(&peers[i % 2], EVENT_CLEAR_QUEUE);
                peers[i % 2].CountEvent();
            }
        };
        std::thread threads[] = {std::thread(track, 0), std::thread(track, 1),
                                 std::thread(track, 2), std::thread(wait), std::thread(clear)};
        Await([&peers] { return peers[1].accepted > kRounds / 4; });
        peers[1].Destroy(); // while the others run
        for (auto& thread : threads) {
            thread.join();
        }
        peers[0].Destroy();
        EXPECT_EQ(peers[0].accepted, peers[0].cleared);
        EXPECT_EQ(peers[1].accepted, peers[1].cleared);
        ForgetLog();
    }
}
