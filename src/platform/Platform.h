// The whole platform layer, for the files that use most of it.
#ifndef KORVANE_PLATFORM_PLATFORM_H
#define KORVANE_PLATFORM_PLATFORM_H

#include "platform/DateTime.h"
#include "platform/DebugOutput.h"
#include "platform/Files.h"
#include "platform/Kernel.h"
#include "platform/Messages.h"
#include "platform/Sockets.h"
#include "platform/SystemInfo.h"
#include "platform/Threads.h"
#include "platform/Uuid.h"

#include <korvane/platform/CMutex.h>
#include <korvane/platform/CPtrArray.h>
#include <korvane/platform/CString.h>
#include <korvane/platform/DStr.h>
#include <korvane/platform/KvnTypes.h>

#endif
