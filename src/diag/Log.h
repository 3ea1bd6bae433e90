// The log: one function, WriteLog, through which every diagnostic line of the
// library goes, a process-wide threshold, and the channels a written line
// reaches: the trace file and the debugger output of the tools library, and
// the request log, a text file whose name the application gives at start-up.
// Both files are UTF-8 and keep every character.
#ifndef KORVANE_DIAG_LOG_H
#define KORVANE_DIAG_LOG_H

#include <atomic>

#include <korvane/platform/KvnTypes.h>

// A line of level L is written only when L <= g_logLevel; 0 writes nothing.
extern std::atomic<int> g_logLevel;

void WriteLog(const wchar_t* text, int level);
// Formats the line only when it would be written, then writes it.
void WriteLogF(int level, const wchar_t* format, ...);
int GetLogLevel();

// Sets the logging up; always 1. A non-empty fileName switches the request
// log on (rotating the previous run's file to "<name>.bak" when rotate is 1).
int InitLog(int level, const wchar_t* fileName, int rotate);
// Lets a write in progress finish (at most about 4 s) and marks the logging
// closed: long texts are then cut to their first chunk.
void FreeLog();

void OpenRequestLog(const wchar_t* fileName, int rotate);
void WriteRequestLog(const wchar_t* line);

// The tools library's channels. Both take a wide format and arguments; the
// library always passes its finished text as the only argument (format "%ls").
// DebugAppendTextFile keeps each text, after the local date and time, in the
// trace file named like the request log with ".trace" added (rotated with it
// at start-up); without a request log it keeps nothing.
void DebugAppendTextFile(const wchar_t* format, ...);
void ODS(const wchar_t* format, ...);

// Tests only.
typedef void (*KvnTraceFileHook)(const wchar_t* text, void* context);
// Receives every text given to DebugAppendTextFile; null removes it.
void KvnSetTraceFileHook(KvnTraceFileHook hook, void* context);
// Back to the state at load: level 0, request log off, logging closed.
void KvnResetLogForTests();

#endif
