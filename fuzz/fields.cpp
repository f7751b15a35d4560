// SPDX-License-Identifier: MIT
// Texts read into a struct with fields of every kind: what can be read can be written, and is the
// same when it is read again.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Check.h"
#include "TCFields.h"

using namespace Velmora;

namespace {

struct Part
{
    std::int8_t small = 0;
    float ratio = 0;
};
SENNET_FIELDS(Part, small, ratio)

struct Whole
{
    bool on = false;
    std::int64_t when = 0;
    std::optional<std::uint64_t> count;
    std::optional<double> celsius;
    std::optional<std::string> note;
    std::vector<bool> flags;
    std::vector<std::vector<Part>> parts;
    std::map<std::string, std::optional<Part>> named;
};
SENNET_FIELDS(Whole, on, when, count, celsius, note, flags, parts, named)

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    TCMessage message;
    message.SetMessage(std::string(reinterpret_cast<const char*>(data), size));
    Whole whole;
    std::string why;
    if (!Read(message, whole, &why)) {
        Check(!why.empty());
        return 0;
    }

    TCMessage written;
    Check(Write(whole, written, &why) && why.empty());
    TCMessage received;
    received.SetMessage(written.GetString());
    Whole again;
    TCMessage writtenAgain;
    Check(Read(received, again) && Write(again, writtenAgain));
    Check(writtenAgain.GetString() == written.GetString());
    return 0;
}
