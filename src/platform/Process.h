// Child processes: starting a program, waiting for its end, stopping it.
// Used by the service's loader, which starts the service, and by the tests
// that run the service as a program.
//
// A process is named by a KvnProcess value: the process id on POSIX, the
// process handle on Windows. A started process must be waited for (until
// KvnWaitProcess reports its end) so that the system can release it.
#ifndef KORVANE_PLATFORM_PROCESS_H
#define KORVANE_PLATFORM_PROCESS_H

#include <korvane/platform/KvnTypes.h>

typedef long long KvnProcess;

// Starts the program at path with the arguments argv (argv[0] first, a null
// pointer after the last one). When stderrPath is not null, the program's
// standard error goes to that file (appended). The process, or 0 on failure
// (a path that cannot be run counts as a failure on Windows; on POSIX the
// child then ends at once with exit code 127). With endWithParent, the
// program is asked to end (SIGTERM) when this process ends, even by a crash
// (Linux only; elsewhere the flag is ignored).
KvnProcess KvnStartProcess(const char* path, const char* const* argv, const char* stderrPath,
                           BOOL endWithParent = FALSE);

// Waits up to timeoutMs (0: only looks) for the process to end: 1 when it
// ended (its exit code in *exitCode when not null; 128 + the signal number
// for a process stopped by a signal on POSIX), 0 while it runs, -1 for a
// process that is not a child of this one or was already waited for.
int KvnWaitProcess(KvnProcess process, DWORD timeoutMs, int* exitCode);

// Asks the process to end (SIGTERM on POSIX; TerminateProcess with exit code
// 1 on Windows, where a process cannot be asked politely). FALSE on failure.
BOOL KvnTerminateProcess(KvnProcess process);

#endif
