// SPDX-License-Identifier: MIT
// Formats times and durations for the output.
#pragma once

#include <string>

namespace Ctl {

// Microseconds since 1970 as the local time of day, down to microseconds.
std::string ClockTime(long long microseconds);

// Microseconds since 1970 as date and time in UTC, down to microseconds.
std::string IsoTime(long long microseconds);

// A duration in microseconds as "1.234 ms".
std::string Milliseconds(long long microseconds);

} // namespace Ctl
