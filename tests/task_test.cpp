// Tasks: set-up, end, and everything that can fail in between.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "Harness.h"

using namespace Velmora;

namespace {

std::atomic<bool> g_NoThreads{false};

class IO : public TCIOBase
{
public:
    IO(std::string& journal, std::string name) : m_Journal(journal), m_Name(std::move(name)) {}
    bool Init(GMainLoop* loop) override
    {
        m_Journal += "+" + m_Name;
        return works && loop != nullptr;
    }
    void Final() override
    {
        m_Journal += "-" + m_Name;
        if (!ends) {
            throw std::runtime_error("client");
        }
    }
    bool works = true, ends = true;

private:
    std::string& m_Journal;
    std::string m_Name;
};

// Notes its hooks in a journal; of the thread that is at work, read when the task is over.
class HookedTask : public Noting<TCTask>
{
public:
    HookedTask() : Noting("task") {}
    bool Init(GMainLoop* loop) override { return (journal += "+task", TCTask::Init(loop)); }
    void Final() override { (journal += "-task", TCTask::Final()); }

    std::string journal;
    std::function<void()> inSetup;
    bool creates = true;
    using TCTask::m_PipeFileDes;
    IO x{journal, "x"}, y{journal, "y"}, z{journal, "z"};

protected:
    void t_AddIO() override
    {
        AddIO(&z);
        if (inSetup) {
            inSetup();
        }
    }
    bool t_Create() override { return (journal += " create", creates); }
    void t_Main() override { (journal += " main", TCTask::t_Main()); }
    void t_Destroy() override { journal += " destroy"; }
};

class TaskTest : public testing::Test
{
protected:
    void SetUp() override { ForgetLog(); }
    HookedTask task;
};

} // namespace

// Fails when a test says so.
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
        EXPECT_FALSE(task.Create("name")); // it has a thread
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
    const auto before = OpenDescriptors();
    for (const bool retried : {true, false}) {
        HookedTask failing;
        failing.AddIO(&failing.x);
        failing.y.works = false;
        failing.AddIO(&failing.y);
        EXPECT_FALSE(failing.Create("name"));
        EXPECT_EQ(failing.journal, "+x+y");
        failing.y.works = true;
        failing.creates = false;
        failing.AddIO(&failing.x); // added already, and driven once
        EXPECT_FALSE(failing.Create("name"));
        EXPECT_TRUE(Send(&failing, 7)); // the queue was set up before t_Create failed
        g_NoThreads = failing.creates = true;
        EXPECT_FALSE(failing.Create("name"));
        g_NoThreads = false;
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
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(TaskTest, FailedSetupOnTheThreadEndsIt)
{
    task.AddIO(&task.x);
    task.x.works = false;
    EXPECT_TRUE(task.Create("name", false));
    task.Destroy();
    EXPECT_EQ(task.journal, "+x-x-task-z destroy");
    g_NoThreads = true;
    EXPECT_FALSE(task.Create("name", false));
    g_NoThreads = false;
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
    task.inSetup = [&] {
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
    Await([&] { return !Send(&task, 10); }); // the queue is closed at the end of the thread
    task.Destroy();
    EXPECT_EQ(CountLog(kError, "Send event EVENT_EXIT_TASK to destroy*"), 1);
    EXPECT_EQ(task.seen.find("e7 c7 e8 c8 "), 0U);
    EXPECT_NE(task.seen.find("e1 c1 "), std::string::npos);
    EXPECT_EQ(task.seen.find("e9"), std::string::npos); // cleared behind the exit event
    EXPECT_NE(task.seen.find("c9"), std::string::npos);
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
    for (const bool sweep : {false, true}) {
        Task losing("losing");
        std::promise<void> begun;
        losing.onEvent = [&](const TCEvent& event) {
            if (event.id == 7) {
                begun.set_value();
                Await([&] { return losing.CountEvent() > 0; });
                losing.DeleteEvent(nullptr);
                sweep&& SendUrgent(&losing, EVENT_CLEAR_QUEUE);
            }
        };
        ASSERT_TRUE(losing.Create("losing"));
        Send(&losing, 7);
        begun.get_future().wait();
        losing.Destroy();
        EXPECT_EQ(losing.seen, sweep ? "e7 c7 e5 c5 c1 e1 c1 " : "e7 c7 c1 e1 c1 ");
    }
}

TEST_F(TaskTest, DestroyEndsATaskThatCannotReadItsPipe)
{
    ASSERT_TRUE(task.Create("name"));
    const int kept = dup(task.m_PipeFileDes[0]); // so that the pipe still has a reader
    const int unreadable = open("/", O_RDONLY | O_CLOEXEC);
    dup2(unreadable, task.m_PipeFileDes[0]);
    close(unreadable);
    Send(&task, 7);
    task.Destroy();
    close(kept);
    EXPECT_EQ(task.seen, "c1 ");
}

TEST_F(TaskTest, ThrowingSetupIsNotTakenForASetupThatIsDone)
{
    task.inSetup = [] { throw std::runtime_error("client"); };
    EXPECT_THROW(task.Create("name"), std::runtime_error);
    task.inSetup = nullptr;
    task.AddIO(&task.x);
    task.z.ends = false; // nor is one that cannot be taken back
    EXPECT_THROW(task.Create("name"), std::runtime_error);
    task.z.ends = true;
    task.journal.clear();
    EXPECT_TRUE(task.Create("name"));
    EXPECT_TRUE(Send(&task, 7));
    task.Destroy();
    EXPECT_EQ(task.journal, "-task-z-x destroy+x+task+z create main-x-task-z destroy");
}
