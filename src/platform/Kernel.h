// Kernel objects: events, mutexes, handles and the waits on them.
//
// The interface of the platform layer, told in the terms of the Windows kernel
// objects the library was designed on. The Win32 backend maps it onto the real
// objects; the POSIX backend provides its own objects with the same behaviour:
//  - events are auto-reset (one successful wait consumes the set) or manual
//    reset; a set that nobody waits for stays pending;
//  - a wait on several handles returns the first signalled one in array order,
//    and an auto-reset event (or a mutex) is consumed only by the wait that
//    returns it;
//  - mutexes are recursive for their holder; a mutex whose holder ended
//    without releasing it is handed to the next waiter with WAIT_ABANDONED;
//  - waiting on a handle that was closed (or a null one) fails with
//    WAIT_FAILED and KvnGetLastError() == ERROR_INVALID_HANDLE; a value that
//    never was a handle of this layer is not detected on POSIX, where a
//    handle is the object's address.
// Socket events (Sockets.h) and thread handles (Threads.h) are waited on with
// the same functions.
#ifndef KORVANE_PLATFORM_KERNEL_H
#define KORVANE_PLATFORM_KERNEL_H

#include <korvane/platform/KvnTypes.h>

#if !defined(_WIN32)
#define WAIT_OBJECT_0 0x00000000u
#define WAIT_ABANDONED 0x00000080u
#define WAIT_ABANDONED_0 0x00000080u
#define WAIT_TIMEOUT 0x00000102u
#define WAIT_FAILED 0xFFFFFFFFu
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_ENOUGH_MEMORY 8u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_NOT_OWNER 288u
#define MAXIMUM_WAIT_OBJECTS 64u
#endif

// A handle counts as open when it is neither 0 nor the all-bits-set value.
inline bool KvnIsHandleOpen(HANDLE h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }

// Unnamed event, not signalled unless initialState; null on failure.
HANDLE KvnCreateEvent(BOOL manualReset, BOOL initialState);
BOOL KvnSetEvent(HANDLE hEvent);
BOOL KvnResetEvent(HANDLE hEvent);

// Unnamed mutex, not owned; null on failure.
HANDLE KvnCreateMutex();
// FALSE when the calling thread does not hold the mutex.
BOOL KvnReleaseMutex(HANDLE hMutex);

// Closes any handle of this layer (event, mutex, thread, socket event).
BOOL KvnCloseHandle(HANDLE h);
// Closes h if it is open, and leaves it null either way.
inline void KvnCloseHandleIfOpen(HANDLE& h) {
    if (KvnIsHandleOpen(h)) KvnCloseHandle(h);
    h = nullptr;
}

// WAIT_OBJECT_0, WAIT_ABANDONED, WAIT_TIMEOUT or WAIT_FAILED.
DWORD KvnWaitForSingleObject(HANDLE h, DWORD timeoutMs);
// Waits until any one handle is signalled: WAIT_OBJECT_0 + i for the first
// signalled handle i in array order, WAIT_ABANDONED_0 + i for an abandoned
// mutex, WAIT_TIMEOUT, or WAIT_FAILED (count 0 or above MAXIMUM_WAIT_OBJECTS,
// or an invalid handle).
DWORD KvnWaitForMultipleObjects(DWORD count, const HANDLE* handles, DWORD timeoutMs);

// The calling thread's last error code (Windows error numbers).
DWORD KvnGetLastError();
void KvnSetLastError(DWORD code);

#endif
