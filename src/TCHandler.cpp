// SPDX-License-Identifier: MIT
#include "TCEventIO.h"

namespace Velmora {

bool TCHandler::t_OnEvent(const TCEvent* /*event*/)
{
    return false;
}

void TCHandler::t_Clear(TCEvent* /*event*/) {}

} // namespace Velmora
