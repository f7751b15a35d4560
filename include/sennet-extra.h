// SPDX-License-Identifier: MIT
/// @file
/// sennet.h, and what libsennet offers beyond it. A program that does not use it pays nothing for
/// it.
#pragma once

#include "TCCall.h"
#include "TCCaller.h"
#include "TCFields.h"
#include "TCNameWatch.h"
#include "TCOwnerSignal.h"
#include "TCRateLimit.h"
#include "TCReconnect.h"
#include "TCReply.h"
#include "TCWatchdog.h"
#include "sennet.h"
