// SPDX-License-Identifier: MIT
// Alarms, on a loop that the test iterates and on the loop of a task.
#include <dlfcn.h>

#include <atomic>
#include <future>
#include <memory>

#include "Harness.h"

using namespace Velmora;

namespace {

const auto kForEver = static_cast<unsigned long>(VELMORA_INFINITY);

std::atomic<bool> g_SlowStops{false};

// The callback of the alarm is set by each test.
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

    static bool RunsOn(GMainContext* context, TCAlarm& of)
    {
        return g_main_context_find_source_by_user_data(context, &of) != nullptr;
    }
    void UntilOver()
    {
        while (RunsOn(loop.Context(), alarm)) {
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

// Is slow while g_SlowStops is set.
extern "C" void g_source_destroy(GSource* source)
{
    static const auto real =
        reinterpret_cast<decltype(&g_source_destroy)>(dlsym(RTLD_NEXT, "g_source_destroy"));
    if (g_SlowStops) {
        g_usleep(10000);
    }
    real(source);
}

TEST_F(AlarmTest, RunsAsOftenAsAsked)
{
    EXPECT_FALSE(alarm.SetAlarmCallback(&Run, this));
    EXPECT_FALSE(alarm.Reset(1, 1));
    EXPECT_TRUE(alarm.Create(&queue, 0, 5));
    EXPECT_TRUE(alarm.Create(nullptr, 1, 1)); // changes nothing
    EXPECT_FALSE(alarm.SetAlarmCallback(nullptr, this));
    EXPECT_FALSE(alarm.Reset(1, 1));
    EXPECT_TRUE(alarm.SetAlarmCallback(&Run, this));
    EXPECT_FALSE(RunsOn(loop.Context(), alarm));
    const struct
    {
        unsigned long interval, count, runs;
    } cases[] = {{1, 3, 3}, {2, 1, 1}, {1, kForEver, 20}, {1, 100, 20}, {0, 1, 0}, {1, 0, 0}};
    for (const auto& c : cases) {
        runs = 0;
        EXPECT_TRUE(alarm.Reset(1000000, 9)); // replaced while it runs
        EXPECT_TRUE(RunsOn(loop.Context(), alarm));
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
    alarm.Create(&queue, 1, kForEver);
    onAlarm = [this] {
        ++runs;
        alarm.Destroy();
        return true;
    };
    alarm.SetAlarmCallback(&Run, this);
    UntilOver();
    EXPECT_EQ(runs, 1U);

    alarm.Create(nullptr, 1, kForEver); // still on the loop of the first Create
    onAlarm = [this] { return alarm.Reset(1, kForEver) && ++runs < 5; };
    alarm.SetAlarmCallback(&Run, this);
    UntilOver(); // the timer that the last run has started is stopped, too
    EXPECT_EQ(runs, 5U);
}

TEST_F(AlarmTest, HoldsItsLoopOverTheEndOfTheTask)
{
    TCAlarm orphan, unbound;
    Task task("task");
    unbound.Create(&task, 1000000, 1); // the task has no loop yet: the default context
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(task.Create("task"));
        orphan.Create(&task, 1, kForEver);
        task.Destroy();
        EXPECT_TRUE(orphan.SetAlarmCallback(&Run, this));
        EXPECT_TRUE(orphan.Reset(1, 1));
        orphan.Destroy();
        EXPECT_FALSE(orphan.Reset(1, 1));
        orphan.Create(nullptr, 1, kForEver); // still that loop
        EXPECT_TRUE(orphan.SetAlarmCallback(&Run, this));
        EXPECT_FALSE(RunsOn(nullptr, orphan));
        orphan.Destroy();
    }
    ASSERT_TRUE(task.Create("task")); // has a new loop
    orphan.Create(nullptr, 1, kForEver);
    EXPECT_TRUE(orphan.SetAlarmCallback(&Run, this));
    unbound.SetAlarmCallback(&Run, this);
    g_usleep(5000);
    task.Destroy();
    orphan.Destroy();
    EXPECT_EQ(runs, 0U);
    EXPECT_TRUE(RunsOn(nullptr, unbound));
    orphan.Create(&task, 1000000, 1); // replaces the loop
    orphan.SetAlarmCallback(&Run, this);
    EXPECT_TRUE(RunsOn(nullptr, orphan));
    orphan.Destroy();
    unbound.Destroy();
    EXPECT_FALSE(RunsOn(nullptr, unbound));
}

TEST_F(AlarmTest, TakesTheLoopOfATaskThatIsJustEnding)
{
    Task task("task");
    std::atomic<bool> over{false};
    std::thread taker([&] {
        while (!over) {
            TCAlarm taken;
            taken.Create(&task, 1000000, 1);
            taken.SetAlarmCallback(&Run, this);
            taken.Destroy();
        }
    });
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(task.Create("task"));
        task.Destroy();
    }
    over = true;
    taker.join();
}

TEST_F(AlarmTest, NeverRunsAfterDestroyOnAnotherThread)
{
    TCScope<Task> task("task");
    std::atomic<GThread*> thread{nullptr};
    auto target = std::make_unique<int>(0); // used by the callback, freed after the stop
    onAlarm = [&] {
        if (thread.exchange(g_thread_self()) == nullptr) {
            g_usleep(20000); // the stop waits for this
        }
        ++*target;
        return true;
    };
    for (const bool replaced : {false, true, false, true}) {
        target = std::make_unique<int>(0);
        thread = nullptr;
        alarm.Create(&*task, 1, kForEver);
        alarm.SetAlarmCallback(&Run, this);
        Await([&] { return thread != nullptr; });
        g_SlowStops = true; // a timer that is due now waits for the lock in its dispatch
        if (replaced) {
            alarm.Reset(1000000, 1);
        } else {
            alarm.Destroy();
        }
        g_SlowStops = false;
        target.reset();
        RunAndWait(&*task, [] {}); // after the end of that dispatch
        alarm.Destroy();
    }
    EXPECT_NE(thread, g_thread_self());
}
