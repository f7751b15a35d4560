// SPDX-License-Identifier: MIT
// A service that answers later, from one of its tasks: a measurement takes 200 ms, and three
// callers at once wait 200 ms each, not up to 600.
#include <array>
#include <memory>

#include "MainLoop.h"
#include "sennet-extra.h"

using namespace Velmora;

namespace {

class Meter : public TCServer
{
public:
    Meter() : TCServer("example.meter", SERVER_TYPE_SERVICE) {}

protected:
    bool IfMessageReceived(const char* /*from*/, const TCMessage* message, TCMessage* /*reply*/,
                           const char* signalName) override
    {
        if (signalName != nullptr) {
            return false;
        }
        // Shared, since a callable must be copyable. If the task does not run it, it is destroyed,
        // and the caller gets the error reply.
        const auto later = std::make_shared<TCReply>(TCReply::Later());
        return Run(&*m_Workers[m_Next++ % m_Workers.size()], [later, request = *message] {
            g_usleep(200000); // the measurement
            TCMessage answer(request);
            answer.m_Json["celsius"] = 21.5;
            later->Answer(answer);
        });
    }

private:
    std::array<TCScope<TCTask>, 3> m_Workers{
        TCScope<TCTask>("worker-1"), TCScope<TCTask>("worker-2"), TCScope<TCTask>("worker-3")};
    std::size_t m_Next = 0; // used on the dispatch thread
};

} // namespace

int main()
{
    SetAppName("later_service");
    MainLoop loop;
    const TCScope<Meter> meter; // closes before its tasks end, so that every caller gets an answer
    if (!meter) {
        return 1;
    }
    loop.Run();
    return 0;
}
