// SPDX-License-Identifier: MIT
#include "TimeFormat.h"

#include <cstdio>
#include <memory>

#include <glib.h>

#include "GLibPtr.h"

namespace Ctl {

using namespace Velmora::Internal;

namespace {

using DatePtr = std::unique_ptr<GDateTime, Releaser<g_date_time_unref>>;
using CharPtr = std::unique_ptr<char, Releaser<g_free>>;

std::string FormatTime(GDateTime* seconds, long long microseconds, const char* format)
{
    const DatePtr whole(seconds);
    const DatePtr time(g_date_time_add(whole.get(), microseconds % G_USEC_PER_SEC));
    return CharPtr(g_date_time_format(time.get(), format)).get();
}

} // namespace

std::string ClockTime(long long microseconds)
{
    return FormatTime(g_date_time_new_from_unix_local(microseconds / G_USEC_PER_SEC), microseconds,
                      "%H:%M:%S.%f");
}

std::string IsoTime(long long microseconds)
{
    return FormatTime(g_date_time_new_from_unix_utc(microseconds / G_USEC_PER_SEC), microseconds,
                      "%Y-%m-%dT%H:%M:%S.%fZ");
}

std::string Milliseconds(long long microseconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f ms", static_cast<double>(microseconds) / 1000);
    return text;
}

} // namespace Ctl
