// What the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// A broken promise is a finding.
inline void Check(bool kept)
{
    if (!kept) {
        std::abort();
    }
}
