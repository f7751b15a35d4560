// SPDX-License-Identifier: MIT
// A service that lets root and the members of one group through: authorising_service GROUP
#include <cstdio>

#include <grp.h>

#include "MainLoop.h"
#include "sennet-extra.h"

using namespace Velmora;

namespace {

class Door : public TCServer
{
public:
    explicit Door(gid_t operators)
        : TCServer("example.door", SERVER_TYPE_SERVICE), m_Operators(operators)
    {}

protected:
    bool IfMessageReceived(const char* /*from*/, const TCMessage* /*message*/, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        const TCCaller caller = TCCaller::Current();
        if (caller.User() != 0 && !caller.IsInGroup(m_Operators)) {
            VELMORA_LOGW("refused %s", caller.UniqueName().c_str());
            reply->m_Json["dbus_result"] = "fail";
            reply->m_Json["errmsg"] = "not allowed";
            return false;
        }
        reply->m_Json["door"] = "open";
        return true;
    }

private:
    const gid_t m_Operators;
};

} // namespace

int main(int argc, char** argv)
{
    SetAppName("authorising_service");
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread runs yet
    const group* const operators = argc == 2 ? getgrnam(argv[1]) : nullptr;
    if (operators == nullptr) {
        std::fprintf(stderr, "usage: authorising_service GROUP\n");
        return 2;
    }
    MainLoop loop;
    const TCScope<Door> door(operators->gr_gid);
    if (!door) {
        return 1;
    }
    loop.Run();
    return 0;
}
