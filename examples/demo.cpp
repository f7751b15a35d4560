// SPDX-License-Identifier: MIT
// A thermometer, which is both a service and a task, broadcasts readings. Two clients in other
// processes listen to it, configure it and send it a buffer.
//
// Started without arguments, the program starts itself once for each role, and prints the result.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "MainLoop.h"
#include "sennet.h"

using namespace Velmora;

namespace {

constexpr char kSensor[] = "demo.sensor";
constexpr int kWanted = 3; // readings, by each client

class Sensor : public TCServer, public TCTask
{
public:
    Sensor() : TCServer(kSensor, SERVER_TYPE_SERVICE), TCTask("sensor") {}

    bool Start()
    {
        return m_Alarm.Create(this, 200, static_cast<unsigned long>(VELMORA_INFINITY)) &&
               m_Alarm.SetAlarmCallback(&Sensor::Measure, this);
    }
    void Stop() { m_Alarm.Destroy(); } // before the scope closes the server, which the alarm uses

protected:
    bool IfTransferMessage(const char* /*from*/, const TCMessage* /*message*/,
                           TCEventIO*& target) override
    {
        target = this; // handled on the task's thread, which also runs the alarm
        return true;
    }

    bool IfMessageReceived(const char* from, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        std::printf("[sensor ] %s sends %s\n", from, message->GetString().c_str());
        unsigned char* bytes = nullptr;
        if (const unsigned int size = message->GetBuffer(bytes); size > 0) {
            std::vector<unsigned char> turned(bytes, bytes + size);
            std::reverse(turned.begin(), turned.end());
            reply->SetBuffer(turned.data(), size);
        } else {
            m_Offset = message->m_Json["offset"].isInt() ? message->m_Json["offset"].asInt() : 0;
            reply->m_Json["offset"] = m_Offset.load();
        }
        return true;
    }

private:
    static bool Measure(void* data)
    {
        auto* const sensor = static_cast<Sensor*>(data);
        TCMessage reading;
        reading.m_Json["celsius"] = 20 + sensor->m_Offset + sensor->m_Readings++ % 3;
        sensor->SendSignal("reading", &reading);
        return true;
    }

    TCAlarm m_Alarm;
    std::atomic<int> m_Offset{0}; // the bus thread runs the hook if the task's queue is full
    int m_Readings = 0;           // used on the task's thread only
};

class Client : public TCServer
{
public:
    explicit Client(const std::string& name)
        : TCServer("demo." + name, SERVER_TYPE_PROXY), m_Name(name)
    {}

    bool Run()
    {
        const bool worked = SubscribeSignal(kSensor, "reading", &Client::OnReading, this) &&
                            AwaitSensor() && Configure() && SendBuffer() && Ask();
        if (worked) {
            m_Loop.Run(); // until the readings and the answer have arrived
        }
        return worked && m_Readings >= kWanted && m_Answered;
    }

protected:
    bool IfMessageReplied(const char* from, const TCMessage* message) override
    {
        Say(std::string("later, ") + from + " answers " + message->GetString());
        m_Answered = true;
        QuitWhenDone();
        return true;
    }

private:
    void Say(const std::string& what) const
    {
        std::printf("[%-7s] %s\n", m_Name.c_str(), what.c_str());
    }
    void QuitWhenDone()
    {
        if (m_Answered && m_Readings >= kWanted) {
            m_Loop.Quit();
        }
    }
    static void OnReading(const char* from, const char* signal, TCMessage* message, void* data)
    {
        auto* const client = static_cast<Client*>(data);
        client->Say(std::string("hears ") + signal + " of " + from + ": " + message->GetMessage());
        ++client->m_Readings;
        client->QuitWhenDone();
    }

    bool AwaitSensor()
    {
        while (!IsServiceAvailable(kSensor)) {
            g_usleep(10000);
        }
        return true;
    }
    bool Configure()
    {
        TCMessage message, reply;
        message.m_Json["offset"] = 5;
        const bool sent = SendMessage(kSensor, &message, true, &reply);
        Say("configured the sensor, which answers " + reply.GetMessage());
        return sent && reply.m_Json["offset"] == 5;
    }
    bool SendBuffer()
    {
        TCMessage message, reply;
        message.SetMessage("three bytes to turn round");
        const unsigned char bytes[] = {1, 2, 3};
        message.SetBuffer(bytes, sizeof bytes);
        unsigned char* turned = nullptr;
        const bool sent = SendMessage(kSensor, &message, true, &reply);
        const bool right = sent && reply.GetBuffer(turned) == 3 && turned[0] == 3 && turned[2] == 1;
        Say(right ? "sent a buffer and got it turned round" : "got no buffer");
        return right;
    }
    bool Ask()
    {
        TCMessage message, wanted; // the second only requests an answer
        message.m_Json["offset"] = 7;
        return SendMessage(kSensor, &message, false, &wanted);
    }

    MainLoop m_Loop;
    std::string m_Name;
    int m_Readings = 0;
    bool m_Answered = false;
};

GSubprocess* Start(const char* program, const char* role)
{
    return g_subprocess_new(G_SUBPROCESS_FLAGS_NONE, nullptr, program, role, nullptr);
}

bool Ended(GSubprocess* process)
{
    const bool well = g_subprocess_wait_check(process, nullptr, nullptr) != 0;
    g_object_unref(process);
    return well;
}

int Direct(const char* program)
{
    std::puts("Three processes meet on a bus: a sensor, which is a service and a task, and two\n"
              "clients, who subscribe to its readings, send it JSON and a buffer, and ask it\n"
              "something without waiting.");
    GSubprocess* const sensor = Start(program, "sensor");
    GSubprocess* const clients[] = {Start(program, "kitchen"), Start(program, "cellar")};
    bool well = true;
    for (GSubprocess* client : clients) {
        well = Ended(client) && well;
    }
    g_subprocess_send_signal(sensor, SIGTERM);
    well = Ended(sensor) && well;
    std::puts(well ? "All went well." : "Something went wrong.");
    return well ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    SetAppName("demo");
    if (argc < 2) {
        return Direct(argv[0]);
    }
    g_timeout_add_seconds(
        9, [](gpointer) -> gboolean { std::_Exit(2); }, nullptr); // ends a demo that hangs
    const std::string role = argv[1];
    if (role != "sensor") {
        TCScope<Client> client(role);
        return client && client->Run() ? 0 : 1;
    }
    MainLoop loop;
    TCScope<Sensor> sensor;
    if (!sensor || !sensor->Start()) {
        return 1;
    }
    loop.Run();
    std::puts("[sensor ] closing");
    sensor->Stop();
    return 0;
}
