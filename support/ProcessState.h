// SPDX-License-Identifier: MIT
// What the kernel reports of a process. A process is named by its id or "self".
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

namespace Support {

// The first word of a field, "" for a process or thread that has ended.
inline std::string Status(const std::filesystem::path& folder, const std::string& field)
{
    std::ifstream status(folder / "status");
    std::string word;
    while (status >> word && word != field) {
    }
    status >> word;
    return word;
}

inline long ResidentKiB(const std::string& process)
{
    return std::stol(Status("/proc/" + process, "VmRSS:"));
}

inline std::ptrdiff_t OpenDescriptors(const std::string& process = "self")
{
    const std::filesystem::directory_iterator all("/proc/" + process + "/fd");
    return std::distance(begin(all), end(all));
}

} // namespace Support
