// SPDX-License-Identifier: MIT
// Shared by the fuzz targets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Ends the process if a guarantee is broken, which libFuzzer reports.
inline void Check(bool kept)
{
    if (!kept) {
        std::abort();
    }
}
