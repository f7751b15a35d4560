// A thermometer on a thread of its own: a task that takes events from several threads, is asked
// something synchronously, and is ticked by an alarm.
#include <cstdio>
#include <future>
#include <thread>
#include <vector>

#include "sennet.h"

using namespace Velmora;

namespace {

constexpr unsigned long kReading = 100; // data: {"sensor":NAME,"celsius":NUMBER}
constexpr unsigned long kAverage = 101; // works out Average()

// Its fields belong to the task's thread, on which the handlers and the alarm run.
class Thermometer : public TCTask
{
public:
    Thermometer() : TCTask("thermometer") {}

    // After a synchronous kAverage, until the next one.
    double Average() const { return m_Average; }

    std::future<void> Ticked() { return m_Ticked.get_future(); }

    static bool Tick(void* thermometer)
    {
        auto* const self = static_cast<Thermometer*>(thermometer);
        std::printf("  tick %d\n", ++self->m_Ticks);
        if (self->m_Ticks == 3) {
            self->m_Ticked.set_value();
        }
        return true;
    }

protected:
    bool t_OnEvent(const TCEvent* event) override
    {
        const Json::Value& json = event->data.m_Json;
        switch (event->id) {
        case kReading:
            std::printf("  %s: %.1f degrees\n", json["sensor"].asCString(),
                        json["celsius"].asDouble());
            m_Sum += json["celsius"].asDouble();
            ++m_Readings;
            return true;
        case kAverage:
            m_Average = m_Sum / m_Readings;
            return true;
        default:
            return TCTask::t_OnEvent(event); // the library's own events
        }
    }

private:
    double m_Sum = 0;
    double m_Average = 0;
    int m_Readings = 0;
    int m_Ticks = 0;
    std::promise<void> m_Ticked;
};

void PostReadings(Thermometer& thermometer, const char* sensor)
{
    TCEvent reading;
    reading.receiver = &thermometer;
    reading.id = kReading;
    reading.data.m_Json["sensor"] = sensor;
    for (const double celsius : {18.5, 21.5}) {
        reading.data.m_Json["celsius"] = celsius;
        SendEvent(&reading); // the queue takes a copy
    }
}

} // namespace

int main()
{
    SetAppName("demo");
    Thermometer thermometer;
    if (!thermometer.Create("thermometer")) {
        return 1;
    }

    std::puts("Three threads post two readings each; the task takes them one by one:");
    std::vector<std::thread> sensors;
    for (const char* name : {"kitchen", "cellar", "attic"}) {
        sensors.emplace_back([&thermometer, name] { PostReadings(thermometer, name); });
    }
    for (std::thread& sensor : sensors) {
        sensor.join();
    }

    TCEvent question;
    question.receiver = &thermometer;
    question.id = kAverage;
    const bool answered = SendSyncEvent(&question);
    std::puts("A synchronous send returns when its handler is done, behind all readings:");
    std::printf("  average: %.1f degrees\n", thermometer.Average());

    std::puts("An alarm ticks three times on the task's thread, ten times a second:");
    TCAlarm alarm;
    alarm.Create(&thermometer, 100, 3);
    alarm.SetAlarmCallback(&Thermometer::Tick, &thermometer);
    thermometer.Ticked().wait();

    alarm.Destroy();
    thermometer.Destroy();
    std::puts("The task has ended and its thread is joined.");
    return answered && thermometer.Average() == 20.0 ? 0 : 1;
}
