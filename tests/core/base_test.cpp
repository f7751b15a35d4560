// SPDX-License-Identifier: MIT
// Log lines, the application name, the locks and the performance trace.
#include <atomic>
#include <cstdarg>

#include <sys/syscall.h>
#include <unistd.h>

#include "Harness.h"

using namespace Velmora;

namespace {

const auto kForEver = static_cast<unsigned long>(VELMORA_INFINITY);

std::string g_ClockLine;

constexpr int kFirstLine = __LINE__ + 3;
void WriteAllLevels()
{
    VELMORA_LOGD("d");
    VELMORA_LOGI("");
    VELMORA_LOGW("%s %d", "w", 2);
    VELMORA_LOGE("e");
    VELMORA_LOG_NULL("server");
}

} // namespace

// Stands in for the kernel that TCPrint::sennet_hw_clock_s writes to.
extern "C" int prctl(int option, ...)
{
    va_list arguments;
    va_start(arguments, option);
    const char* const text = va_arg(arguments, const char*);
    const unsigned long size = va_arg(arguments, unsigned long);
    va_end(arguments);
    if (option == 666) {
        g_ClockLine.assign(text, size);
        return 0;
    }
    return static_cast<int>(syscall(SYS_prctl, option, text, size, 0, 0));
}

TEST(LogLine, HasItsFormAtEveryLevel)
{
    ForgetLog();
    WriteAllLevels();
    const struct
    {
        int priority;
        std::string format, text;
    } expected[] = {
        {3, "%s: %s(%d) > \033[32m [%s]d\033[0m\n", "\033[32m [nil]d\033[0m\n"},
        {4, "%s: %s(%d) > \033[37m [%s]\033[0m\n", "\033[37m [nil]\033[0m\n"},
        {5, "%s: %s(%d) > \033[33m [%s]%s %d\033[0m\n", "\033[33m [nil]w 2\033[0m\n"},
        {6, "%s: %s(%d) > \033[31m [%s]e\033[0m\n", "\033[31m [nil]e\033[0m\n"},
        {5, "%s: %s(%d) > \033[33m [%s]%s is null\033[0m\n",
         "\033[33m [nil]server is null\033[0m\n"},
    };
    const auto lines = Log();
    ASSERT_EQ(lines.size(), std::size(expected));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].id, 0);
        EXPECT_EQ(lines[i].tag, "Sennet");
        EXPECT_EQ(lines[i].priority, expected[i].priority);
        EXPECT_EQ(lines[i].format, expected[i].format);
        const std::string place = "base_test.cpp: WriteAllLevels(" +
                                  std::to_string(kFirstLine + static_cast<int>(i)) + ") > ";
        EXPECT_EQ(lines[i].text, place + expected[i].text);
    }
}

TEST(AppName, IsNilUntilSetAndAfterNull)
{
    EXPECT_STREQ(GetProjectName(), "nil");
    SetAppName("daemon");
    ForgetLog();
    VELMORA_LOGE("x");
    EXPECT_NE(Log().at(0).text.find(" [daemon]x"), std::string::npos);
    EXPECT_EQ(GetAppName(), GetProjectName());
    SetAppName(nullptr);
    EXPECT_EQ(g_AppName, "nil");
}

TEST(Semaphore, CountsAndRefusesWithoutPrimitives)
{
    ForgetLog();
    TCSemaphore semaphore;
    EXPECT_FALSE(semaphore.Try(0));
    EXPECT_EQ(CountLog(kError, "m_EventMutex is NULL"), 1);
    semaphore.Destroy();
    EXPECT_EQ(CountLog(kError, ""), 0);

    semaphore.Create(2);
    EXPECT_TRUE(semaphore.Try(0));
    EXPECT_TRUE(semaphore.Try(kForEver));
    EXPECT_FALSE(semaphore.Try(0));
    EXPECT_FALSE(semaphore.Try(3000));
    semaphore.Give();
    semaphore.Take();
    std::thread giver([&] { semaphore.Give(); });
    EXPECT_TRUE(semaphore.Try(kForEver - 1)); // the deadline does not overflow
    giver.join();
    semaphore.Destroy();
    EXPECT_EQ(CountLog(kError, ""), 1);
}

TEST(Mutex, IsRecursiveAndOnlyTheHolderUnlocks)
{
    TCMutex mutex;
    mutex.Create();
    const auto tryElsewhere = [&] {
        bool held = false;
        std::thread([&] {
            held = mutex.Try(0);
            mutex.Unlock(); // does nothing if this thread does not hold it
        }).join();
        return held;
    };
    mutex.Lock();
    EXPECT_TRUE(mutex.Try(0));
    mutex.Lock();
    for (int depth = 3; depth > 0; --depth) {
        EXPECT_FALSE(tryElsewhere()) << depth;
        mutex.Unlock();
    }
    EXPECT_TRUE(tryElsewhere());
    mutex.Destroy();
    mutex.Destroy();
}

TEST(Trace, WritesItsLinesUnderItsOwnTag)
{
    ForgetLog();
    {
        TCPrint silent;
        const TCPrint in(0, "in", 1);
        const TCPrint scope(1, "scope", 0);
        silent.Start("mark", 7);
        silent.End("mark", 7);
        silent.End("mark", 7);
    }
    const std::string formats[] = {
        "[IN][%s]!!",
        "[IN][%s]!!",
        "[START][%s:%d]!!",
        "[END][%s:%d]!! duration = %lu ",
        "[END][%s:%d]!! duration = %lu ",
        "[OUT][%s]!! duration = %lu",
    };
    const auto lines = Log();
    ASSERT_EQ(lines.size(), std::size(formats));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].format, "%s: %s(%d) > " + formats[i]);
        EXPECT_EQ(lines[i].tag, "WPERF");
        EXPECT_EQ(lines[i].priority, kError);
    }
    EXPECT_NE(lines[2].text.find("TCPrint.cpp: Start("), std::string::npos);
    EXPECT_NE(lines[5].text.find("[OUT][scope]!! duration = "), std::string::npos);
}

TEST(Trace, ClockLineIsCutAtTheEndOfItsBuffer)
{
    TCPrint::sennet_hw_clock_s("name", 3, "%d-%s", 5, "x");
    EXPECT_EQ(g_ClockLine, "[sennet][name][3]5-x");
    TCPrint::sennet_hw_clock_s(std::string(300, 'n').c_str(), 3, "%s",
                               std::string(50, 'f').c_str());
    EXPECT_EQ(g_ClockLine, "[sennet][" + std::string(181, 'n') + std::string(9, 'f'));
}
