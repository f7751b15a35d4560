// SPDX-License-Identifier: MIT
/// @file
/// What libsennet offers beyond sennet.h. A program that does not use it pays nothing for it.
#pragma once

#include "TCCall.h"
#include "TCCaller.h"
#include "TCRateLimit.h"
#include "TCReply.h"
