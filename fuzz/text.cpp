// SPDX-License-Identifier: MIT
// Texts of messages, JSON or not: written, copied and read again.
#include <cctype>
#include <cstring>
#include <string>

#include "Check.h"
#include "TCMessage.h"

using namespace Velmora;

namespace {

// The JSON library is not instrumented. Instead, the pairs of character kinds in what it writes
// show the fuzzer which input leads to something new.
[[gnu::section("__libfuzzer_extra_counters")]] std::uint8_t g_Pairs[128][128];

unsigned int Kind(char character)
{
    if (std::isalnum(static_cast<unsigned char>(character)) != 0) {
        return std::isdigit(static_cast<unsigned char>(character)) != 0 ? '0' : 'a';
    }
    return static_cast<unsigned char>(character) % 128U;
}

void CountPairs(const std::string& said)
{
    for (std::size_t i = 1; i < said.size(); ++i) {
        g_Pairs[Kind(said[i - 1])][Kind(said[i])] = 1;
    }
}

void CheckCopy(const TCMessage& message, const std::string& text, const std::uint8_t* bytes,
               std::size_t size)
{
    unsigned char* own = nullptr;
    Check(message.GetString() == text);
    Check(message.GetBuffer(own) == size && (size == 0 || std::memcmp(own, bytes, size) == 0));
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    TCMessage message;
    const bool isJson = message.SetMessage(text);
    Check(message.GetMessage() == text && (isJson || message.m_Json.isNull()));
    message.SetBuffer(data, static_cast<unsigned int>(size));

    const TCMessage copy(message);
    message.Generate();
    const std::string written = message.GetMessage();
    CountPairs(isJson ? written : message.GetError());
    CheckCopy(message, written, data, size);
    CheckCopy(copy, written, data, size);
    TCMessage assigned;
    assigned = copy;
    CheckCopy(assigned, written, data, size);

    TCData again(written);
    Check(again.Parse() == isJson);
    again.Generate();
    Check(again.GetMessage() == written);
    return 0;
}
