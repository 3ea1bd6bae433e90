// Threads, sleeping and the tick count on Windows: the C runtime's thread
// functions (so that the runtime's per-thread state is set up and released),
// Sleep and GetTickCount.
#include "platform/Threads.h"

#include <process.h>

#include <atomic>
#include <cstdint>
#include <new>

namespace {

// _beginthreadex wants a __stdcall entry; the interface's entries use the
// default convention (they differ on 32-bit x86), so the thread starts in a
// trampoline that owns the pair until it has read it.
struct ThreadStart {
    KvnThreadProc proc;
    void* arg;
};

unsigned __stdcall ThreadTrampoline(void* p) {
    ThreadStart start = *static_cast<ThreadStart*>(p);
    delete static_cast<ThreadStart*>(p);
    return start.proc(start.arg);
}

std::atomic<DWORD (*)()> g_tickCountSource{nullptr};

}  // namespace

HANDLE KvnBeginThreadEx(KvnThreadProc proc, void* arg) {
    if (!proc) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    ThreadStart* start = new (std::nothrow) ThreadStart{proc, arg};
    if (!start) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    std::uintptr_t h = _beginthreadex(nullptr, 0, ThreadTrampoline, start, 0, nullptr);
    if (h == 0) {
        delete start;
        return nullptr;
    }
    return reinterpret_cast<HANDLE>(h);
}

BOOL KvnBeginThread(KvnThreadProcNoResult proc, void* arg) {
    // _beginthread's entry is __cdecl like the interface's, so no trampoline;
    // the runtime closes the thread's handle itself when the thread ends.
    if (!proc) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return _beginthread(proc, 0, arg) == static_cast<std::uintptr_t>(-1) ? FALSE : TRUE;
}

void KvnSetThreadPriorityBelowNormal() {
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL);
}

void KvnSleep(DWORD ms) { Sleep(ms); }

DWORD KvnGetTickCount() {
    DWORD (*source)() = g_tickCountSource.load();
    return source ? source() : GetTickCount();
}

void KvnSetTickCountSource(DWORD (*source)()) { g_tickCountSource.store(source); }
