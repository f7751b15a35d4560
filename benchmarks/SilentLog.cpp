// SPDX-License-Identifier: MIT
// Replaces the log service with one that drops every line, so that its cost is not measured.
#include "TCLog.h"

// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __dlog_print(int /*log_id*/, int /*priority*/, const char* /*tag*/,
                            const char* /*format*/, ...)
{
    return 0;
}
