// Threads, sleeping and the millisecond tick count on POSIX.
//
// Threads are detached pthreads with the default stack. A thread started with
// KvnBeginThreadEx has a thread object (PosixInternal.h) that its handle
// points to; it becomes signalled when the thread's thread-local record is
// destroyed, that is after the thread function returned and after the
// mutexes the thread still held were handed on as abandoned.
//
// Where this differs from Windows:
//  - the thread's result is not kept (nothing in the library reads it);
//  - KvnSetThreadPriorityBelowNormal raises the thread's nice value by one
//    above the main thread's on Linux (what an unprivileged process may do)
//    and does nothing elsewhere;
//  - the tick count is CLOCK_MONOTONIC, which does not advance while the
//    machine sleeps (GetTickCount does).
#include "platform/Threads.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <new>

#include <pthread.h>
#if defined(__linux__)
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

#include "platform/Kernel.h"
#include "platform/posix/PosixInternal.h"

using namespace kvn_posix;

namespace {

struct StartBlock {
    KvnThreadProc proc;
    KvnThreadProcNoResult procNoResult;
    void* arg;
    KernelObject* object;  // null for KvnBeginThread
};

void* ThreadStart(void* p) {
    StartBlock block = *static_cast<StartBlock*>(p);
    delete static_cast<StartBlock*>(p);
    // Creating the thread's record first makes it the last thread-local
    // destroyed, so the handle is signalled after every other one has gone.
    AttachThreadObject(block.object);
    if (block.proc) block.proc(block.arg);
    else block.procNoResult(block.arg);
    return nullptr;
}

// Starts a detached thread on the block; false when the system refused.
bool Start(StartBlock* block) {
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return false;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    int rc = pthread_create(&thread, &attr, ThreadStart, block);
    pthread_attr_destroy(&attr);
    return rc == 0;
}

std::atomic<DWORD (*)()> g_tickSource{nullptr};

DWORD RealTickCount() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    unsigned long long ms = static_cast<unsigned long long>(ts.tv_sec) * 1000ull +
                            static_cast<unsigned long long>(ts.tv_nsec) / 1000000ull;
    return static_cast<DWORD>(ms);  // wraps around like GetTickCount
}

}  // namespace

HANDLE KvnBeginThreadEx(KvnThreadProc proc, void* arg) {
    if (!proc) {
        KvnSetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    KernelObject* object = CreateObject(ObjectKind::Thread);
    StartBlock* block = object ? new (std::nothrow) StartBlock{proc, nullptr, arg, object} : nullptr;
    if (!block) {
        if (object) KvnCloseHandle(object);
        KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    Reference(object);  // the running thread's
    if (!Start(block)) {
        delete block;
        Unreference(object);  // the thread's; the handle's goes below
        KvnCloseHandle(object);
        KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return object;
}

BOOL KvnBeginThread(KvnThreadProcNoResult proc, void* arg) {
    if (!proc) return FALSE;
    StartBlock* block = new (std::nothrow) StartBlock{nullptr, proc, arg, nullptr};
    if (!block) return FALSE;
    if (!Start(block)) {
        delete block;
        return FALSE;
    }
    return TRUE;
}

void KvnSetThreadPriorityBelowNormal() {
#if defined(__linux__)
    // On Linux the nice value is per thread; the main thread's stands for
    // "normal", so calling this twice does not lower the thread further.
    errno = 0;
    int normal = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
    if (errno != 0) return;
    id_t self = static_cast<id_t>(syscall(SYS_gettid));
    errno = 0;
    int current = getpriority(PRIO_PROCESS, self);
    if (errno != 0) return;
    int target = normal + 1 > 19 ? 19 : normal + 1;
    if (target > current) setpriority(PRIO_PROCESS, self, target);
#endif
}

void KvnSleep(DWORD ms) {
    // INFINITE sleeps for ever, as Sleep(INFINITE) does.
    do {
        timespec request;
        request.tv_sec = static_cast<time_t>(ms / 1000);
        request.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
        timespec left;
        while (nanosleep(&request, &left) != 0 && errno == EINTR) request = left;
    } while (ms == INFINITE);
}

DWORD KvnGetTickCount() {
    DWORD (*source)() = g_tickSource.load();
    return source ? source() : RealTickCount();
}

void KvnSetTickCountSource(DWORD (*source)()) { g_tickSource.store(source); }
