// Kernel objects of the POSIX backend: events, mutexes, handles, the waits on
// them and the calling thread's last error.
//
// A HANDLE is the address of one of our own objects (PosixInternal.h). All
// object state sits under one process-wide lock. A waiting thread checks the
// whole array under that lock, takes only the first signalled object in array
// order, and otherwise registers itself with every object and blocks in
// poll() on its own wake-up pipe plus the descriptors of the socket events in
// its array, for the remaining time; whoever signals an object writes to the
// pipes of its waiters, and the waiter checks the array again in order.
//
// Where this differs from Windows:
//  - handles are addresses: a closed handle is detected through the registry
//    of live objects, and freed objects are held back for a while before
//    their memory is reused, but like a reused Windows handle value, an
//    address reused in the end makes a stale handle name the newer object;
//  - only the objects the library uses exist: unnamed events and mutexes,
//    threads and socket events; there is no wait-all, no alertable wait, and
//    mutex recursion is not limited;
//  - a thread's ownership of mutexes ends with the destructor of its
//    thread-local record, so the layer must not be used from thread-local
//    destructors that run after it;
//  - closing a handle while another thread waits on it lets that wait go on
//    until its time-out (the object lives until the wait ends); Windows
//    leaves this case undefined.
#include "platform/Kernel.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <deque>
#include <new>
#include <unordered_set>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "platform/posix/PosixInternal.h"

namespace kvn_posix {
namespace {

// Objects no longer referenced are held back this long (in objects freed
// after them) before their memory goes: a handle is the object's address, and
// memory handed out again at once would make a just-closed handle name the
// next object created instead of failing.
const size_t kRetiredObjects = 1024;

struct KernelState {
    std::mutex lock;
    std::unordered_set<KernelObject*> live;  // objects whose handle is open
    std::deque<KernelObject*> retired;       // oldest first
};

// Never destroyed: detached threads may still wait or end while the process
// runs its static destructors.
KernelState& State() {
    static KernelState* state = new KernelState;
    return *state;
}

thread_local DWORD t_lastError = 0;

bool MakeWakePipe(ThreadState& self) {
    if (self.wakeRead >= 0) return true;
    int fds[2];
#if defined(__linux__)
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) return false;
#else
    if (pipe(fds) != 0) return false;
    for (int fd : fds) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
#endif
    self.wakeRead = fds[0];
    self.wakeWrite = fds[1];
    return true;
}

void DrainWakePipe(ThreadState& self) {
    char buffer[16];
    while (read(self.wakeRead, buffer, sizeof buffer) > 0) {
    }
    self.wakePending = false;
}

// Takes the object for the calling thread if it is signalled: consumes an
// auto-reset event, takes (or re-enters) a mutex. abandoned tells the taker of
// a mutex whose previous holder ended without releasing it.
bool TryAcquire(KernelObject* object, ThreadState& self, bool& abandoned) {
    switch (object->kind) {
    case ObjectKind::Event: {
        EventObject* e = static_cast<EventObject*>(object);
        if (!e->signalled) return false;
        if (!e->manualReset) e->signalled = false;
        return true;
    }
    case ObjectKind::Mutex: {
        MutexObject* m = static_cast<MutexObject*>(object);
        if (m->owner == &self) {
            ++m->count;
            return true;
        }
        if (m->owner) return false;
        try {
            self.held.push_back(m);
        } catch (...) {
            return false;  // out of memory: the mutex stays free for others
        }
        m->owner = &self;
        m->count = 1;
        abandoned = m->abandoned;
        m->abandoned = false;
        ++m->refs;
        return true;
    }
    case ObjectKind::Thread:
        return static_cast<ThreadObject*>(object)->ended;
    case ObjectKind::SocketEvent:
        return SocketEventSignalled(static_cast<SocketEventObject*>(object));
    }
    return false;
}

void RemoveWaiter(KernelObject* object, ThreadState* self) {
    auto it = std::find(object->waiters.begin(), object->waiters.end(), self);
    if (it != object->waiters.end()) object->waiters.erase(it);
}

// Milliseconds to pass to poll(), rounded up so that a wait never ends early.
int RemainingMs(std::chrono::steady_clock::time_point deadline,
                std::chrono::steady_clock::time_point now) {
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - now).count();
    long long ms = (left + 999) / 1000;
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

DWORD WaitAny(DWORD count, const HANDLE* handles, DWORD timeoutMs) {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || !handles) {
        KvnSetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    ThreadState& self = CurrentThread();
    KernelObject* objects[MAXIMUM_WAIT_OBJECTS];
    const bool infinite = timeoutMs == INFINITE;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);

    std::unique_lock<std::mutex> lock(KernelLock());
    for (DWORD i = 0; i < count; ++i) {
        objects[i] = FindObject(handles[i]);
        if (!objects[i]) {
            lock.unlock();
            KvnSetLastError(ERROR_INVALID_HANDLE);
            return WAIT_FAILED;
        }
    }
    // The wait keeps the objects alive even if their handles are closed meanwhile.
    for (DWORD i = 0; i < count; ++i) ++objects[i]->refs;

    DWORD result = WAIT_TIMEOUT;
    DWORD error = 0;
    bool registered = false;
    for (;;) {
        bool taken = false;
        for (DWORD i = 0; i < count && !taken; ++i) {
            bool abandoned = false;
            if (TryAcquire(objects[i], self, abandoned)) {
                result = (abandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0) + i;
                taken = true;
            }
        }
        if (taken) break;

        int pollMs = -1;
        if (!infinite) {
            auto now = std::chrono::steady_clock::now();
            if (now >= deadline) break;
            pollMs = RemainingMs(deadline, now);
        }
        if (!registered) {
            if (!MakeWakePipe(self)) {
                result = WAIT_FAILED;
                error = ERROR_NOT_ENOUGH_MEMORY;
                break;
            }
            try {
                for (DWORD i = 0; i < count; ++i) objects[i]->waiters.push_back(&self);
            } catch (...) {
                for (DWORD i = 0; i < count; ++i) RemoveWaiter(objects[i], &self);
                result = WAIT_FAILED;
                error = ERROR_NOT_ENOUGH_MEMORY;
                break;
            }
            registered = true;
        }

        pollfd fds[1 + MAXIMUM_WAIT_OBJECTS];
        nfds_t nfds = 0;
        fds[nfds++] = pollfd{self.wakeRead, POLLIN, 0};
        for (DWORD i = 0; i < count; ++i) {
            if (objects[i]->kind != ObjectKind::SocketEvent) continue;
            int fd = SocketEventPollFd(static_cast<SocketEventObject*>(objects[i]));
            if (fd >= 0) fds[nfds++] = pollfd{fd, POLLIN, 0};
        }
        lock.unlock();
        // EINTR and spurious returns alike lead to a fresh check of the array.
        poll(fds, nfds, pollMs);
        lock.lock();
        if (self.wakePending) DrainWakePipe(self);
    }

    if (registered) {
        for (DWORD i = 0; i < count; ++i) RemoveWaiter(objects[i], &self);
    }
    for (DWORD i = 0; i < count; ++i) Unreference(objects[i]);
    lock.unlock();
    if (result == WAIT_FAILED) KvnSetLastError(error);
    return result;
}

// Creates the object's handle; null with ERROR_NOT_ENOUGH_MEMORY on failure.
HANDLE Publish(KernelObject* object) {
    if (!object) {
        KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(KernelLock());
    HANDLE h = PublishObject(object);
    if (!h) KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return h;
}

}  // namespace

std::mutex& KernelLock() { return State().lock; }

HANDLE PublishObject(KernelObject* object) {
    try {
        State().live.insert(object);
    } catch (...) {
        delete object;
        return nullptr;
    }
    return object;
}

KernelObject* FindObject(HANDLE h) {
    KernelObject* object = static_cast<KernelObject*>(h);
    if (!h) return nullptr;
    return State().live.count(object) ? object : nullptr;
}

void Unreference(KernelObject* object) {
    if (--object->refs != 0) return;
    std::deque<KernelObject*>& retired = State().retired;
    try {
        retired.push_back(object);
    } catch (...) {
        delete object;
        return;
    }
    if (retired.size() > kRetiredObjects) {
        delete retired.front();
        retired.pop_front();
    }
}

void WakeWaiters(KernelObject* object) {
    for (ThreadState* waiter : object->waiters) {
        if (waiter->wakePending) continue;
        char byte = 1;
        // The pipe is empty here, so the write cannot fail for lack of room.
        if (write(waiter->wakeWrite, &byte, 1) == 1) waiter->wakePending = true;
    }
}

ThreadState& CurrentThread() {
    thread_local ThreadState state;
    return state;
}

void AttachThreadObject(ThreadObject* object) { CurrentThread().threadObject = object; }

ThreadState::~ThreadState() {
    {
        std::lock_guard<std::mutex> guard(KernelLock());
        for (MutexObject* m : held) {
            m->owner = nullptr;
            m->count = 0;
            m->abandoned = true;
            WakeWaiters(m);
            Unreference(m);
        }
        held.clear();
        // Signalled only now, after the mutexes were abandoned: whoever waits
        // for the thread to end then finds them free, as on Windows.
        if (threadObject) {
            threadObject->ended = true;
            WakeWaiters(threadObject);
            Unreference(threadObject);
            threadObject = nullptr;
        }
    }
    if (wakeRead >= 0) close(wakeRead);
    if (wakeWrite >= 0) close(wakeWrite);
}

}  // namespace kvn_posix

using namespace kvn_posix;

HANDLE KvnCreateEvent(BOOL manualReset, BOOL initialState) {
    return Publish(new (std::nothrow) EventObject(manualReset != FALSE, initialState != FALSE));
}

namespace {

// Sets or resets an event or a socket event.
BOOL SetSignalled(HANDLE h, bool on) {
    std::lock_guard<std::mutex> guard(KernelLock());
    KernelObject* object = FindObject(h);
    if (object && object->kind == ObjectKind::Event) {
        static_cast<EventObject*>(object)->signalled = on;
    } else if (object && object->kind == ObjectKind::SocketEvent) {
        static_cast<SocketEventObject*>(object)->signalled = on;
    } else {
        KvnSetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (on) WakeWaiters(object);
    return TRUE;
}

}  // namespace

BOOL KvnSetEvent(HANDLE hEvent) { return SetSignalled(hEvent, true); }

BOOL KvnResetEvent(HANDLE hEvent) { return SetSignalled(hEvent, false); }

HANDLE KvnCreateMutex() { return Publish(new (std::nothrow) MutexObject); }

BOOL KvnReleaseMutex(HANDLE hMutex) {
    ThreadState& self = CurrentThread();
    std::lock_guard<std::mutex> guard(KernelLock());
    KernelObject* object = FindObject(hMutex);
    if (!object || object->kind != ObjectKind::Mutex) {
        KvnSetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    MutexObject* m = static_cast<MutexObject*>(object);
    if (m->owner != &self) {
        KvnSetLastError(ERROR_NOT_OWNER);
        return FALSE;
    }
    if (--m->count == 0) {
        m->owner = nullptr;
        auto it = std::find(self.held.begin(), self.held.end(), m);
        if (it != self.held.end()) self.held.erase(it);
        WakeWaiters(m);
        Unreference(m);
    }
    return TRUE;
}

BOOL KvnCloseHandle(HANDLE h) {
    std::lock_guard<std::mutex> guard(KernelLock());
    KernelObject* object = FindObject(h);
    if (!object) {
        KvnSetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    State().live.erase(object);
    if (object->kind == ObjectKind::SocketEvent) {
        UnbindSocketEvent(static_cast<SocketEventObject*>(object));
    }
    Unreference(object);
    return TRUE;
}

DWORD KvnWaitForSingleObject(HANDLE h, DWORD timeoutMs) { return WaitAny(1, &h, timeoutMs); }

DWORD KvnWaitForMultipleObjects(DWORD count, const HANDLE* handles, DWORD timeoutMs) {
    return WaitAny(count, handles, timeoutMs);
}

DWORD KvnGetLastError() { return t_lastError; }

void KvnSetLastError(DWORD code) { t_lastError = code; }
