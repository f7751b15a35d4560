// SPDX-License-Identifier: MIT
// Tasks: set-up, end, and what can fail in between.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <map>

#include "Harness.h"

using namespace Velmora;

namespace {

std::atomic<bool> g_NoThreads{false};

// Records its hooks and those of its IOs. Read the journal after the end of the task.
class HookedTask : public Noting<TCTask>
{
    class IO : public TCIOBase
    {
    public:
        IO(HookedTask& task, const char* name) : m_Task(task), m_Name(name) {}
        bool Init(GMainLoop* loop) override { return m_Task.Note("+" + m_Name) && loop != nullptr; }
        void Final() override { m_Task.Note("-" + m_Name); }

    private:
        HookedTask& m_Task;
        const std::string m_Name;
    };

public:
    HookedTask() : Noting("task") {}
    bool Init(GMainLoop* loop) override { return Note("+task") && TCTask::Init(loop); }
    void Final() override { (Note("-task"), TCTask::Final()); }

    std::string journal;
    std::string fails;                                 // the hook that returns false
    std::map<std::string, std::function<void()>> acts; // what hooks do
    std::function<void()> keeps; // called instead of the base class on the exit event
    using TCTask::m_PipeFileDes;
    using TCTask::m_Source;
    using TCTask::m_TaskLoop;
    bool HasInsistingDestroy()
    {
        for (guint id = 1; id < 100; ++id) {
            GSource* const source = g_main_context_find_source_by_id(m_Context, id);
            if (source != nullptr && g_strcmp0(g_source_get_name(source), "sennet-posted") == 0) {
                return true;
            }
        }
        return false;
    }
    void Iterate()
    {
        for (int i = 0; i < 20; ++i) {
            g_main_context_iteration(m_Context, FALSE);
        }
    }
    void AfterThisCallback(std::function<void()> function)
    {
        m_After = std::move(function);
        GSource* const source = g_idle_source_new();
        const auto run = [](gpointer data) -> gboolean {
            static_cast<HookedTask*>(data)->m_After();
            return G_SOURCE_REMOVE;
        };
        g_source_set_priority(source, G_PRIORITY_HIGH);
        g_source_set_callback(source, run, this, nullptr);
        g_source_attach(source, m_Context);
        g_source_unref(source);
    }
    IO x{*this, "x"}, y{*this, "y"}, z{*this, "z"};

protected:
    void t_AddIO() override { AddIO(&z); }
    bool t_OnEvent(const TCEvent* event) override
    {
        if (event->id == EVENT_EXIT_TASK && keeps) {
            keeps();
            return true;
        }
        return Noting::t_OnEvent(event);
    }
    bool t_Create() override { return Note(" create"); }
    void t_Main() override { (Note(" main"), TCTask::t_Main()); }
    void t_Destroy() override { Note(" destroy"); }

private:
    bool Note(const std::string& hook)
    {
        journal += hook;
        if (const auto act = acts[hook]) {
            act();
        }
        return hook != fails;
    }

    std::function<void()> m_After;
};

class TaskTest : public testing::Test
{
protected:
    void SetUp() override { ForgetLog(); }
    HookedTask task;
};

} // namespace

// Fails while g_NoThreads is set.
extern "C" GThread* g_thread_try_new(const char* name, GThreadFunc function, gpointer data,
                                     GError** error)
{
    if (g_NoThreads) {
        g_set_error(error, G_THREAD_ERROR, G_THREAD_ERROR_AGAIN, "no threads");
        return nullptr;
    }
    static const auto real =
        reinterpret_cast<decltype(&g_thread_try_new)>(dlsym(RTLD_NEXT, "g_thread_try_new"));
    return real(name, function, data, error);
}

TEST_F(TaskTest, DrivesItsIOsInOrderOnEitherThread)
{
    for (const bool here : {true, false}) {
        ForgetLog();
        task.journal.clear();
        task.AddIO(&task.x);
        task.AddIO(&task.y);
        ASSERT_TRUE(task.Create("name", here, here ? 0 : 99));
        EXPECT_FALSE(task.Create("name")); // it runs already
        if (here) {
            EXPECT_TRUE(Send(&task, 7));
        }
        task.Destroy();
        EXPECT_EQ(task.journal, "+x+y+task+z create main-x-y-task-z destroy");
        for (int length = 1; length <= 4; ++length) {
            EXPECT_EQ(CountLog(kInfo, "coroutine num : " + std::to_string(length)), 1);
        }
        EXPECT_EQ(CountLog(kDebug, "task is destroyed!"), 1);
        task.Destroy();
        EXPECT_EQ(CountLog(kDebug, "task is destroyed!"), 2);
    }
    EXPECT_EQ(task.seen, "e7 c7 e1 c1 e1 c1 ");
}

TEST_F(TaskTest, FailedSetupOnTheCallerStartsAnewOrIsReleased)
{
    const auto before = Support::OpenDescriptors();
    for (const bool retried : {true, false}) {
        HookedTask failing;
        failing.AddIO(&failing.x);
        failing.fails = "+y";
        failing.AddIO(&failing.y);
        EXPECT_FALSE(failing.Create("name"));
        EXPECT_EQ(failing.journal, "+x+y");
        failing.fails = " create";
        failing.AddIO(&failing.x); // again, but it is driven once
        EXPECT_FALSE(failing.Create("name"));
        EXPECT_TRUE(Send(&failing, 7)); // the queue was set up before t_Create failed
        EXPECT_FALSE(RunAndWait(&failing, [] { ADD_FAILURE(); }));
        std::future<bool> waiting;
        failing.acts[" create"] = [&] {
            waiting = std::async(std::launch::async, [&] { return RunAndWait(&failing, [] {}); });
            Await([&] { return failing.CountEvent() == 1; });
        };
        failing.fails.clear();
        g_NoThreads = true;
        OnLog([&](const std::string& line) {
            if (line.find("no threads") != std::string::npos) {
                std::thread([&] { failing.Destroy(); }).join(); // no lock is held here
            }
        });
        EXPECT_FALSE(failing.Create("name"));
        OnLog(nullptr);
        g_NoThreads = false;
        failing.acts.clear();
        EXPECT_FALSE(waiting.get());
        EXPECT_FALSE(RunAndWait(&failing, [] { ADD_FAILURE(); }));
        failing.Destroy(); // what was set up stays until the next Create
        EXPECT_EQ(CountLog(kError, "Thread created fail,no threads"), retried ? 1 : 2);
        if (retried) {
            failing.journal.clear();
            EXPECT_TRUE(failing.Create("name"));
            failing.Destroy();
            EXPECT_EQ(failing.journal,
                      "-x-y-task-z destroy+x+y+task+z create main-x-y-task-z destroy");
        }
    }
    EXPECT_EQ(CountLog(kError, "Init fail!"), 2);
    EXPECT_EQ(CountLog(kError, "fail!"), 2);
    EXPECT_EQ(CountLog(kError, "Create thread fail!"), 6);
    EXPECT_EQ(Support::OpenDescriptors(), before);
}

TEST_F(TaskTest, FailedSetupOnTheThreadEndsIt)
{
    task.AddIO(&task.x);
    task.fails = "+x";
    EXPECT_TRUE(task.Create("name", false));
    task.Destroy();
    EXPECT_EQ(task.journal, "+x-x-task-z destroy");
    g_NoThreads = true;
    EXPECT_FALSE(task.Create("name", false));
    g_NoThreads = false;
    task.Destroy(); // has no set-up to wait for
    EXPECT_TRUE(task.Create("name", false));
    task.Destroy();
}

TEST_F(TaskTest, DestroyRightAfterCreateWaitsForTheSetup)
{
    for (int i = 0; i < 200; ++i) {
        Task quick("quick");
        ASSERT_TRUE(quick.Create("quick", false));
        quick.Destroy();
        EXPECT_EQ(quick.seen, "e1 c1 ");
    }
    std::promise<void> destroying;
    task.acts["+task"] = [&] {
        task.Destroy(); // on the task's own thread
        destroying.get_future().wait();
    };
    ASSERT_TRUE(task.Create("slow", false));
    std::thread second([&] { task.Destroy(); });
    destroying.set_value();
    task.Destroy();
    second.join();
    EXPECT_EQ(task.seen, "e1 c1 ");
    EXPECT_EQ(CountLog(kError, "Send event EVENT_EXIT_TASK to destroy*"), 1);
}

TEST_F(TaskTest, EndsFromInsideAndIsStillJoined)
{
    task.onEvent = [&](const TCEvent& event) {
        if (event.id == 7) {
            task.Destroy();
        } else if (event.id == 8) {
            SendUrgent(&task, EVENT_EXIT_TASK);
            Send(&task, 9);
        }
    };
    ASSERT_TRUE(task.Create("name"));
    Send(&task, 7);
    Send(&task, 8);
    Noting<TCHandler> other;
    other.m_EventIO = &task;
    Await([&] { return !Send(&other, 7); }); // the end of the thread closes the queue
    task.Destroy();
    EXPECT_EQ(CountLog(kError, "Send event EVENT_EXIT_TASK to destroy*"), 1);
    EXPECT_EQ(task.seen, "e7 c7 e8 c8 e1 c1 c9 "); // 9 is cleared after the exit event
}

TEST_F(TaskTest, DestroyEndsATaskWhoseQueueIsFull)
{
    std::promise<void> full;
    std::atomic<int> handled{0};
    int accepted = 1;
    Task busy("busy");
    busy.onEvent = [&](const TCEvent& event) {
        if (event.id == 8) {
            full.get_future().wait();
        }
        handled += event.id == 7;
        busy.seen.clear();
    };
    ASSERT_TRUE(busy.Create("busy"));
    Send(&busy, 8);
    while (Send(&busy, 7)) {
        ++accepted;
    }
    std::thread destroyer([&] { busy.Destroy(); });
    Await([] { return CountLog(kError, "event io busy is full!") == 2; });
    full.set_value();
    destroyer.join();
    EXPECT_EQ(handled, accepted - 1);
}

TEST_F(TaskTest, DestroyEndsATaskThatLosesItsExitEvent)
{
    const auto replace = [](int end, const char* path) {
        const int other = open(path, O_RDONLY | O_CLOEXEC);
        dup2(other, end);
        close(other);
    };
    HookedTask* losing = nullptr;
    const auto remove = [&] { losing->DeleteEvent(nullptr); };
    const struct
    {
        std::function<void()> loses; // called in a handler while the exit event is queued
        std::string seen;
    } cases[] = {
        {remove, "e7 c7 c1 e1 c1 "},
        {[&] { (remove(), SendUrgent(losing, EVENT_CLEAR_QUEUE)); }, "e7 c7 e5 c5 c1 e1 c1 "},
        {[&] { losing->Final(); }, "e7 c1 c7 "},
        {[&] { losing->AfterThisCallback([&] { losing->Final(); }); }, "e7 c7 c1 "},
        {[&] { (losing->Final(), losing->Init(losing->m_TaskLoop)); }, "e7 c1 c7 "},
        {[&] { g_source_destroy(losing->m_Source); }, "e7 c7 c1 "},
        {[&] { (remove(), g_source_destroy(losing->m_Source)); }, "e7 c7 c1 "},
        {[&] { (remove(), replace(losing->m_PipeFileDes[1], "/")); }, "e7 c7 c1 "},
        {[&] { replace(losing->m_PipeFileDes[0], "/"); }, "e7 c7 "},
        {[&] { replace(losing->m_PipeFileDes[0], "/dev/null"); }, "e7 c7 "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(&c - cases));
        for (const bool before : {false, true}) { // true: before Destroy() queues it
            HookedTask victim;
            losing = &victim;
            std::promise<void> begun, lost;
            victim.onEvent = [&](const TCEvent& event) {
                if (event.id == 7) {
                    begun.set_value();
                    Await([&] { return before || victim.HasInsistingDestroy(); });
                    victim.Iterate(); // runs what Destroy() has attached
                    c.loses();
                    lost.set_value();
                }
            };
            ASSERT_TRUE(victim.Create("losing"));
            const int kept = dup(victim.m_PipeFileDes[0]); // so that the pipe still has a reader
            Send(&victim, 7);
            (before ? lost : begun).get_future().wait();
            victim.Destroy();
            close(kept);
            EXPECT_EQ(before ? victim.seen.substr(0, 3) : victim.seen, before ? "e7 " : c.seen);
        }
    }
}

TEST_F(TaskTest, DestroyLeavesTheExitEventToAHandlerThatKeepsIt)
{
    task.keeps = [&] {
        task.Iterate(); // a nested loop
        task.AfterThisCallback([&] { Send(&task, 7); });
    };
    task.onEvent = [&](const TCEvent&) {
        task.Iterate();
        g_main_loop_quit(task.m_TaskLoop);
    };
    task.AddIO(&task.x);
    task.acts["-x"] = [&] { EXPECT_FALSE(RunAndWait(&task, [] {})); };
    ASSERT_TRUE(task.Create("name"));
    task.Destroy();
    EXPECT_EQ(task.seen, "c1 e7 c7 c6 ");
}

TEST_F(TaskTest, DestroyEndsATaskThatWasToldToQuitBeforeItsLoopRan)
{
    task.acts[" main"] = [&] {
        Send(&task, EVENT_EXIT_TASK);
        task.Iterate();
        g_source_set_priority(task.m_Source, G_PRIORITY_LOW);
    };
    ASSERT_TRUE(task.Create("name"));
    Await([&] { return g_main_loop_is_running(task.m_TaskLoop); });
    task.Destroy();
    EXPECT_EQ(task.seen, "e1 c1 c1 ");
}

TEST_F(TaskTest, ThrowingSetupIsNotTakenForASetupThatIsDone)
{
    for (const char* hook : {"+task", "-z"}) { // the second throws while a set-up is undone
        task.acts.clear();
        task.acts[hook] = [] { throw std::runtime_error("client"); };
        EXPECT_THROW(task.Create("name"), std::runtime_error);
    }
    task.acts.clear();
    task.AddIO(&task.x);
    task.journal.clear();
    EXPECT_TRUE(task.Create("name"));
    EXPECT_TRUE(Send(&task, 7));
    task.Destroy();
    EXPECT_EQ(task.journal, "-task-z-x destroy+x+task+z create main-x-task-z destroy");
}
