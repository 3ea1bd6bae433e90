// Kernel objects on Windows: the interface's events, mutexes and waits are the
// system's own, so this file only forwards. The one thing added is the guard
// against the "no handle" values (see IsNoHandle).
//
// Windows reuses handle values: once a handle is closed, a newer object may
// get the same value, and the stale handle then names that object.
#include "platform/Kernel.h"

namespace {

// Windows reads the all-bits-set value as the current process's pseudo-handle
// (a wait on it would never end) and 0 as an invalid handle; the interface
// promises WAIT_FAILED with ERROR_INVALID_HANDLE for both.
bool IsNoHandle(HANDLE h) { return h == nullptr || h == INVALID_HANDLE_VALUE; }

DWORD FailInvalidHandle() {
    SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
}

}  // namespace

HANDLE KvnCreateEvent(BOOL manualReset, BOOL initialState) {
    return CreateEventW(nullptr, manualReset, initialState, nullptr);
}

BOOL KvnSetEvent(HANDLE hEvent) { return SetEvent(hEvent); }

BOOL KvnResetEvent(HANDLE hEvent) { return ResetEvent(hEvent); }

HANDLE KvnCreateMutex() { return CreateMutexW(nullptr, FALSE, nullptr); }

BOOL KvnReleaseMutex(HANDLE hMutex) { return ReleaseMutex(hMutex); }

BOOL KvnCloseHandle(HANDLE h) {
    // CloseHandle accepts the process pseudo-handle as a no-op success.
    if (IsNoHandle(h)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    // Also closes socket events: a WSAEVENT is an ordinary event handle.
    return CloseHandle(h);
}

DWORD KvnWaitForSingleObject(HANDLE h, DWORD timeoutMs) {
    if (IsNoHandle(h)) return FailInvalidHandle();
    return WaitForSingleObject(h, timeoutMs);
}

DWORD KvnWaitForMultipleObjects(DWORD count, const HANDLE* handles, DWORD timeoutMs) {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || handles == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    for (DWORD i = 0; i < count; ++i) {
        if (IsNoHandle(handles[i])) return FailInvalidHandle();
    }
    // bWaitAll FALSE: the first signalled handle in array order is returned,
    // and only that one is consumed.
    return WaitForMultipleObjects(count, handles, FALSE, timeoutMs);
}

DWORD KvnGetLastError() { return GetLastError(); }

void KvnSetLastError(DWORD code) { SetLastError(code); }
