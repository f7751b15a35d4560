// SPDX-License-Identifier: MIT
/// @file
/// Everything of libsennet.
#pragma once

#include "TCAlarm.h"
#include "TCEventIO.h"
#include "TCLog.h"
#include "TCMessage.h"
#include "TCMutex.h"
#include "TCPrint.h"
#include "TCRun.h"
#include "TCScope.h"
#include "TCServer.h"
#include "TCServerHelper.h"
#include "TCServerSignalManager.h"
#include "TCTask.h"
