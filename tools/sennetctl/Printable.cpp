// SPDX-License-Identifier: MIT
#include "Printable.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include <glib.h>

#include "GLibPtr.h"

namespace Ctl {

using namespace Velmora::Internal;

namespace {

constexpr std::size_t kNameLimit = 1024; // bytes

} // namespace

std::string Printable(const std::string& text)
{
    const std::unique_ptr<char, Releaser<g_free>> valid(
        g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    std::string line;
    const char* next = nullptr;
    for (const char* at = valid.get(); *at != '\0'; at = next) {
        next = g_utf8_next_char(at);
        const gunichar character = g_utf8_get_char(at);
        if (g_unichar_iscntrl(character) != FALSE && character != '\t') {
            char escape[16];
            std::snprintf(escape, sizeof escape, "\\x%02x", character);
            line += escape;
        } else {
            line.append(at, next);
        }
    }
    return line;
}

std::string PrintableName(const std::string& text)
{
    const std::string shown = TruncateUtf8(text, kNameLimit);
    return Printable(shown) +
           (shown.size() < text.size()
                ? "... " + std::to_string(text.size() - shown.size()) + " more bytes"
                : "");
}

std::string TruncateUtf8(const std::string& text, std::size_t limit)
{
    std::size_t size = std::min(text.size(), limit);
    while (size < text.size() && size > 0 && (static_cast<unsigned char>(text[size]) >> 6U) == 2) {
        --size;
    }
    return text.substr(0, size);
}

} // namespace Ctl
