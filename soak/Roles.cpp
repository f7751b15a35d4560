// SPDX-License-Identifier: MIT
#include "Roles.h"

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>

#include "ProcessState.h"
#include "sennet.h"
#include "sennet/testing.h"

namespace Soak {

namespace {

using namespace Velmora;

constexpr char kService[] = "soak.service";
constexpr char kRival[] = "soak.rival";
constexpr char kTick[] = "tick";
constexpr char kTock[] = "tock";
constexpr int kOutstanding = 32; // pending replies; a bus allows 128 per connection

Counts g_Counts;
std::atomic<bool> g_Over{false};

TCMessage Message(unsigned int number)
{
    TCMessage message;
    message.m_Json["number"] = static_cast<int>(number); // the type that the JSON reader uses, too
    message.m_Code = number;
    message.m_Type = "soak";
    const std::vector<unsigned char> bytes(number % 4 == 0 ? number % 3000 : 0, 's');
    message.SetBuffer(bytes.data(), static_cast<unsigned int>(bytes.size()));
    return message;
}

bool IsEcho(const TCMessage& sent, const TCMessage& answer)
{
    unsigned char *sentBytes = nullptr, *bytes = nullptr;
    const unsigned int size = answer.GetBuffer(bytes);
    return answer.m_Code == sent.m_Code && answer.m_Json == sent.m_Json &&
           size == sent.GetBuffer(sentBytes) &&
           (size == 0 || std::memcmp(bytes, sentBytes, size) == 0);
}

// A counter that threads can wait for.
class Tally
{
public:
    void Add(int change)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Value += change;
        m_Changed.notify_all();
    }
    // Returns false after a minute.
    bool AwaitAtMost(int value)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, std::chrono::minutes(1), [&] { return m_Value <= value; });
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    int m_Value = 0;
};

// Echoes messages on its own thread and sends a tick every 5 ms.
class Service : public TCServer, public TCTask
{
public:
    Service() : TCServer(kService, SERVER_TYPE_SERVICE), TCTask("service") {}
    ~Service() override
    {
        m_Alarm.Destroy();
        CloseDBusServer();
        AwaitHooks();
        TCTask::Destroy();
    }
    bool Start()
    {
        return Create("service") && CreateDBusServer() &&
               m_Alarm.Create(this, 5, static_cast<unsigned long>(VELMORA_INFINITY)) &&
               m_Alarm.SetAlarmCallback(&Service::Tick, this);
    }

protected:
    bool IfTransferMessage(const char* /*from*/, const TCMessage* /*message*/,
                           TCEventIO*& target) override
    {
        target = this;
        return true;
    }
    bool IfMessageReceived(const char* /*from*/, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        *reply = *message;
        return true;
    }

private:
    static bool Tick(void* self)
    {
        auto& service = *static_cast<Service*>(self);
        const TCMessage next = Message(service.m_Ticks + 1);
        if (service.SendSignal(kTick, &next)) {
            ++service.m_Ticks;
            ++g_Counts.sent;
        } else {
            ++g_Counts.refused;
        }
        service.SendSignal(kTock, nullptr);
        return true;
    }

    TCAlarm m_Alarm;
    unsigned int m_Ticks = 0; // used on the task's thread only
};

// Calls the service from two threads, checks its ticks, and subscribes and unsubscribes all the
// time.
class Client : public TCServer
{
public:
    explicit Client(const std::string& name) : TCServer(name, SERVER_TYPE_PROXY) {}
    ~Client() override
    {
        CloseDBusProxy();
        AwaitHooks();
    }
    bool Start()
    {
        if (!CreateDBusProxy() || !SubscribeSignal(kService, kTick, &Client::Follow, this)) {
            return false;
        }
        while (!IsServiceAvailable(kService)) {
            g_usleep(1000);
        }
        for (const auto work : {&Client::CallInTurn, &Client::CallWithoutWaiting, &Client::Flap}) {
            m_Threads.emplace_back([this, work] {
                for (unsigned int i = 1; !g_Over; ++i) {
                    (this->*work)(i);
                }
            });
        }
        return true;
    }

    // Call this while the main loop still runs, since it delivers the replies.
    void Finish()
    {
        for (auto& thread : m_Threads) {
            thread.join();
        }
        g_Counts.lost += m_Outstanding.AwaitAtMost(0) ? 0 : 1;
    }

protected:
    bool IfMessageReplied(const char* /*from*/, const TCMessage* /*message*/) override
    {
        m_Outstanding.Add(-1);
        return true;
    }

private:
    void CallInTurn(unsigned int number)
    {
        const TCMessage message = Message(number);
        TCMessage answer;
        if (!SendMessage(kService, &message, true, &answer)) {
            ++g_Counts.refused;
            return;
        }
        ++g_Counts.sent;
        g_Counts.lost += IsEcho(message, answer) ? 0 : 1;
    }
    void CallWithoutWaiting(unsigned int number)
    {
        if (!m_Outstanding.AwaitAtMost(kOutstanding - 1)) {
            ++g_Counts.lost;
            g_Over = true;
            return;
        }
        const TCMessage message = Message(number);
        TCMessage wanted;
        m_Outstanding.Add(1);
        if (SendMessage(kService, &message, false, &wanted)) {
            ++g_Counts.sent;
        } else {
            m_Outstanding.Add(-1);
            ++g_Counts.refused;
        }
    }
    void Flap(unsigned int /*number*/)
    {
        SubscribeSignal(
            kService, kTock, [](auto...) {}, nullptr);
        g_usleep(20000);
        UnSubscribeSignal(kService, kTock);
        const TCMessage message = Message(1);
        TCMessage answer;
        SendMessage(kRival, &message, true, &answer, 500); // some process may own this name
    }
    static void Follow(const char* /*from*/, const char* /*signal*/, TCMessage* message, void* self)
    {
        auto& last = static_cast<Client*>(self)->m_LastTick;
        if (last != 0 && message->m_Code != last + 1) {
            ++g_Counts.lost;
        }
        last = message->m_Code;
    }

    Tally m_Outstanding;
    std::uint64_t m_LastTick = 0; // used on the dispatch thread only
    std::vector<std::thread> m_Threads;
};

// Lives for a moment, and gets a message by each of the three routes.
class Mayfly : public TCServer, public TCTask
{
public:
    explicit Mayfly(const std::string& name)
        : TCServer(name, SERVER_TYPE_ACTIVITY), TCTask(name.c_str())
    {}
    ~Mayfly() override
    {
        m_Alarm.Destroy();
        CloseDBusServer();
        AwaitHooks();
        TCTask::Destroy();
    }
    void Live()
    {
        const TCMessage message = Message(1);
        TCMessage answer;
        m_Expected.Add(3 + 3 + 1);
        const bool sent = Create("mayfly") && CreateDBusServer() &&
                          SubscribeSignal(kService, kTick, nullptr, nullptr) &&
                          SendMessage(m_ServiceName.c_str(), &message, true, &answer) &&
                          SendMessage(m_ServiceName.c_str(), &message, false, nullptr) &&
                          SendMessage(m_ServiceName.c_str(), &message, false, &answer) &&
                          m_Alarm.Create(this, 1, 3) &&
                          m_Alarm.SetAlarmCallback(&Mayfly::Ring, this);
        if (!sent) {
            ++g_Counts.refused;
            return;
        }
        g_Counts.sent += 3;
        g_Counts.lost += m_Expected.AwaitAtMost(0) ? 0 : 1;
    }

protected:
    bool IfMessageReceived(const char* /*from*/, const TCMessage* message, TCMessage* reply,
                           const char* signalName) override
    {
        *reply = *message;
        m_Expected.Add(signalName == nullptr ? -1 : 0);
        return true;
    }
    bool IfMessageReplied(const char* /*from*/, const TCMessage* /*message*/) override
    {
        m_Expected.Add(-1);
        return true;
    }

private:
    static bool Ring(void* self)
    {
        static_cast<Mayfly*>(self)->m_Expected.Add(-1);
        return true;
    }

    TCAlarm m_Alarm;
    Tally m_Expected;
};

// Takes its name from another process that does the same, and loses it to that one.
void BeRival()
{
    TCServer rival(kRival, TCServer::SERVER_TYPE_SERVICE);
    if (rival.CreateDBusServer()) {
        rival.SendSignal(kTock, nullptr);
        rival.IsServiceAvailable(kRival);
    } else {
        ++g_Counts.refused;
    }
    rival.CloseDBusServer();
}

// Reports on demand while the main loop runs on another thread, then ends the work.
int RunLoop(const std::function<void()>& finish)
{
    {
        const Velmora::Testing::LoopThread dispatcher;
        for (std::string line; std::getline(std::cin, line);) {
            malloc_trim(0); // freed memory is not growth
            std::printf("%llu %llu %llu %ld %td %s\n",
                        static_cast<unsigned long long>(g_Counts.sent),
                        static_cast<unsigned long long>(g_Counts.lost),
                        static_cast<unsigned long long>(g_Counts.refused),
                        Support::ResidentKiB("self"), Support::OpenDescriptors("self"),
                        Support::Status("/proc/self", "Threads:").c_str());
            std::fflush(stdout);
        }
        g_Over = true;
        finish();
    }
    return g_Counts.lost == 0 ? 0 : 1;
}

} // namespace

int RunRole(const char* name)
{
    const std::string role = name;
    SetAppName(name);
    if (role == "service") {
        Service service;
        return service.Start() ? RunLoop([] {}) : 2;
    }
    if (role == "client") {
        Client client("soak.client");
        return client.Start() ? RunLoop([&client] { client.Finish(); }) : 2;
    }
    if (role == "mayflies" || role == "rivals") {
        std::thread breeder([&role] {
            for (unsigned int i = 0; !g_Over; ++i) {
                if (role == "rivals") {
                    BeRival();
                } else {
                    Mayfly("mayfly" + std::to_string(i % 7)).Live();
                }
            }
        });
        return RunLoop([&breeder] { breeder.join(); });
    }
    return 2;
}

} // namespace Soak
