// SPDX-License-Identifier: MIT
// Finds out why a call of the library failed, from the lines that the library logs.
//
// The library's functions return only true or false; the reason is in an error line of the log and
// nowhere else. So LibraryErrors.cpp defines __dlog_print, through which the library logs, and
// keeps the last error line. No other file of the tool reads log lines. Once the library returns
// errors through its interface, remove this file.
#pragma once

#include <string>

#include "Failure.h"

namespace Ctl {

// The text of the last error line, without what is only of use in a log.
std::string LastLibraryError();

// Why the last send failed, which was to this service.
Failure SendFailure(const std::string& service);

} // namespace Ctl
