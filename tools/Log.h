// The library's log: the only place where it says why it has refused something.
#pragma once

#include <string>

namespace Ctl {

// What the last error line says.
std::string LastError();

} // namespace Ctl
