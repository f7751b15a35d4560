// Alarms, on a loop that the test iterates and on a task's.
#include <atomic>
#include <memory>

#include "Harness.h"

using namespace Velmora;

namespace {

// An alarm with a callback that the test fills in.
class AlarmTest : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(queue.Init(loop.Get())); }
    void TearDown() override
    {
        alarm.Destroy();
        queue.Final();
    }
    static bool Run(void* data) { return static_cast<AlarmTest*>(data)->onAlarm(); }

    bool Runs() { return g_main_context_find_source_by_user_data(loop.Context(), &alarm); }
    void UntilOver()
    {
        while (Runs()) {
            g_main_context_iteration(loop.Context(), TRUE);
        }
    }

    Loop loop;
    Queue queue;
    TCAlarm alarm;
    unsigned long runs = 0;
    std::function<bool()> onAlarm = [this] { return ++runs < 20; };
};

} // namespace

TEST_F(AlarmTest, RunsAsOftenAsAsked)
{
    EXPECT_FALSE(alarm.SetAlarmCallback(&Run, this));
    EXPECT_FALSE(alarm.Reset(1, 1));
    EXPECT_TRUE(alarm.Create(&queue, 0, 5));
    EXPECT_TRUE(alarm.Create(nullptr, 1, 1)); // ignored
    EXPECT_FALSE(alarm.SetAlarmCallback(nullptr, this));
    EXPECT_FALSE(alarm.Reset(1, 1));
    EXPECT_TRUE(alarm.SetAlarmCallback(&Run, this));
    EXPECT_FALSE(Runs());
    const struct
    {
        unsigned long interval, count, runs;
    } cases[] = {{1, 3, 3},    {2, 1, 1}, {1, VELMORA_INFINITY, 20},
                 {1, 100, 20}, {0, 1, 0}, {1, 0, 0}};
    for (const auto& c : cases) {
        runs = 0;
        EXPECT_TRUE(alarm.Reset(1000000, 9)); // running, and replaced
        EXPECT_TRUE(Runs());
        EXPECT_TRUE(alarm.Reset(c.interval, c.count));
        UntilOver();
        EXPECT_EQ(runs, c.runs) << c.interval << " " << c.count;
    }
    EXPECT_TRUE(alarm.Reset(1, 2));
    UntilOver();
    runs = 0;
    EXPECT_TRUE(alarm.SetAlarmCallback(&Run, this)); // the count has become "for ever"
    EXPECT_TRUE(alarm.SetAlarmCallback(&Run, this)); // and there is one timer
    UntilOver();
    EXPECT_EQ(runs, 20U);
}

TEST_F(AlarmTest, CallbackMayStopAndRestartItsOwnAlarm)
{
    alarm.Create(&queue, 1, VELMORA_INFINITY);
    onAlarm = [this] {
        ++runs;
        alarm.Destroy();
        return true;
    };
    alarm.SetAlarmCallback(&Run, this);
    UntilOver();
    EXPECT_EQ(runs, 1U);

    alarm.Create(nullptr, 1, VELMORA_INFINITY); // still on the loop of the first Create
    onAlarm = [this] { return alarm.Reset(1, VELMORA_INFINITY) && ++runs < 5; };
    alarm.SetAlarmCallback(&Run, this);
    UntilOver(); // the timer that the last run has started is not lost sight of
    EXPECT_EQ(runs, 5U);
}

TEST_F(AlarmTest, SurvivesTheEndOfItsLoop)
{
    alarm.Destroy();
    TCAlarm orphan, unbound;
    {
        Task task("task");
        unbound.Create(&task, 1000000, 1); // not set up: the default context
        ASSERT_TRUE(task.Create("task"));
        orphan.Create(&task, 1000000, 1);
        orphan.SetAlarmCallback(&Run, this);
        unbound.SetAlarmCallback(&Run, this);
        task.Destroy();
    }
    orphan.Destroy();
    EXPECT_TRUE(g_main_context_find_source_by_user_data(nullptr, &unbound));
    unbound.Destroy();
    EXPECT_FALSE(g_main_context_find_source_by_user_data(nullptr, &unbound));
}

TEST_F(AlarmTest, NeverRunsAfterDestroyOnAnotherThread)
{
    Task task("task");
    ASSERT_TRUE(task.Create("task"));
    std::atomic<GThread*> thread{nullptr};
    auto target = std::make_unique<int>(0); // freed right after Destroy, used by the callback
    onAlarm = [&] {
        ++*target;
        thread = g_thread_self();
        return true;
    };
    for (int i = 0; i < 30; ++i) {
        target = std::make_unique<int>(0);
        thread = nullptr;
        alarm.Create(&task, 1, VELMORA_INFINITY);
        alarm.SetAlarmCallback(&Run, this);
        Await([&] { return thread != nullptr; });
        alarm.Reset(1, VELMORA_INFINITY);
        alarm.Destroy();
        target.reset();
    }
    EXPECT_NE(thread, g_thread_self());
    task.Destroy();
}
