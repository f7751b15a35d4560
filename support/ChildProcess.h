// SPDX-License-Identifier: MIT
// A program in a process of its own, which ends with this object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "../src/GLibPtr.h"

namespace Support {

class ChildProcess
{
public:
    explicit ChildProcess(std::vector<const char*> command,
                          GSubprocessFlags flags = G_SUBPROCESS_FLAGS_NONE)
    {
        command.push_back(nullptr);
        m_Process.reset(g_subprocess_newv(command.data(), flags, nullptr));
        if (!m_Process) {
            g_error("cannot start %s", command.front());
        }
    }
    ~ChildProcess()
    {
        g_subprocess_force_exit(Get());
        g_subprocess_wait(Get(), nullptr, nullptr);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    GSubprocess* Get() const { return m_Process.get(); }
    pid_t Id() const { return std::stoi(g_subprocess_get_identifier(Get())); }

    // Waits for the end. Returns false if the process was killed or failed.
    bool EndsWell() const { return g_subprocess_wait_check(Get(), nullptr, nullptr) != 0; }

private:
    std::unique_ptr<GSubprocess, Velmora::Internal::Releaser<g_object_unref>> m_Process;
};

} // namespace Support
