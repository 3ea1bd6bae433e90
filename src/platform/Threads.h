// Threads, sleeping and the millisecond tick count.
#ifndef KORVANE_PLATFORM_THREADS_H
#define KORVANE_PLATFORM_THREADS_H

#include <korvane/platform/KvnTypes.h>

#if !defined(_WIN32)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#endif

typedef unsigned (*KvnThreadProc)(void* arg);
typedef void (*KvnThreadProcNoResult)(void* arg);

// Starts a thread running proc(arg), like the C runtime's _beginthreadex with
// the default stack, started at once. Returns a handle that is signalled once
// the thread has ended (wait on it with the functions of Kernel.h, close it
// with KvnCloseHandle), or null on failure.
HANDLE KvnBeginThreadEx(KvnThreadProc proc, void* arg);

// Starts a thread whose handle nobody keeps, like _beginthread. FALSE on failure.
BOOL KvnBeginThread(KvnThreadProcNoResult proc, void* arg);

// Lowers the calling thread's priority one step below normal (where the
// platform allows it; elsewhere it does nothing).
void KvnSetThreadPriorityBelowNormal();

void KvnSleep(DWORD ms);

// Milliseconds since an arbitrary start, 32 bits, wrapping around after
// about 49.7 days.
DWORD KvnGetTickCount();

// Tests only: replaces the source of KvnGetTickCount (null restores the real
// one), so that a wrap-around can be provoked. Waits and sleeps keep the real
// clock.
void KvnSetTickCountSource(DWORD (*source)());

#endif
