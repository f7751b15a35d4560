// SPDX-License-Identifier: MIT
#include "TCPrint.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <sys/prctl.h>

#include "TCAlarm.h"
#include "TCLog.h"

// The lines of the trace have no colours and no application name, and always the priority of
// errors. Takes at least one argument.
#define WPERF_LINE(body, ...)                                                                      \
    __dlog_print(0, 6, "WPERF", "%s: %s(%d) > " body, VELMORA_LOG_FILE, __func__, __LINE__,        \
                 __VA_ARGS__)

namespace Velmora {

namespace {

// Right even if the ticks wrap, which they do every 49 days on 32 bits.
unsigned long MillisecondsSince(std::uint64_t ticks)
{
    return TCAlarm::GetTickCount() - static_cast<unsigned long>(ticks);
}

} // namespace

TCPrint::TCPrint(int mode, const char* name, int /*unused*/)
    : m_ScopeStart(TCAlarm::GetTickCount()), m_Mode(mode), m_Name(name)
{
    WPERF_LINE("[IN][%s]!!", m_Name);
}

TCPrint::~TCPrint()
{
    if (m_Mode == 1) {
        const unsigned long duration = MillisecondsSince(m_ScopeStart);
        WPERF_LINE("[OUT][%s]!! duration = %lu", m_Name, duration);
    }
}

void TCPrint::Start(const char* name, int number)
{
    m_MarkStart = TCAlarm::GetTickCount();
    WPERF_LINE("[START][%s:%d]!!", name, number);
}

// NOLINTNEXTLINE(readability-make-member-function-const): the interface is given
void TCPrint::End(const char* name, int number)
{
    const unsigned long duration = MillisecondsSince(m_MarkStart);
    WPERF_LINE("[END][%s:%d]!! duration = %lu ", name, number, duration);
}

void TCPrint::sennet_hw_clock_s(const char* name, int number, const char* format, ...)
{
    constexpr int kClockLine = 666; // an option of the platform's kernel
    char line[200] = {};
    std::snprintf(line, sizeof line, "[sennet][%s][%d]", name, number);
    const std::size_t prefix = strnlen(line, 190);
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): a false positive
    std::vsnprintf(line + prefix, sizeof line - prefix, format, arguments);
    va_end(arguments);
    prctl(kClockLine, line, std::strlen(line), 0, 0);
}

} // namespace Velmora
