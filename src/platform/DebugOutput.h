// The debugger output: diagnostic lines meant for a developer watching the
// process, written whatever the log level.
//
// On Windows the lines go to the debugger (OutputDebugStringW). Elsewhere
// they go to the standard error stream, but only once switched on with
// KvnEnableDebugOutput: a library must not write on its host's stderr unasked.
#ifndef KORVANE_PLATFORM_DEBUGOUTPUT_H
#define KORVANE_PLATFORM_DEBUGOUTPUT_H

#include <korvane/platform/KvnTypes.h>

void KvnDebugOutput(const wchar_t* text);
void KvnEnableDebugOutput(BOOL on);

// Tests only: every line is also handed to hook(text, context); null removes
// the hook.
typedef void (*KvnDebugOutputHook)(const wchar_t* text, void* context);
void KvnSetDebugOutputHook(KvnDebugOutputHook hook, void* context);

#endif
