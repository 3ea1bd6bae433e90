// Kernel objects of the POSIX backend: the pool they live in, handles, events,
// mutexes, the calling thread's record and last error. The waits on them are
// in Waits.cpp, socket events in SocketEvents.cpp.
//
// A HANDLE is the address of one of our own objects (PosixInternal.h), and
// each object has its own lock and its own waiters: setting an event, taking
// a free mutex or releasing one that nobody waits for is a few atomic
// operations and no system call; waking a sleeping waiter is one.
//
// Where this differs from Windows:
//  - handles are addresses: a closed handle reads as closed for as long as
//    its object waits in the pool (the last kRetiredObjects closed objects),
//    and like a reused Windows handle value, a much older one names whatever
//    object the memory serves now;
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

#include <korvane/platform/KvnWait.h>

#include <cstdint>
#include <exception>
#include <new>

#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/posix/PosixInternal.h"

namespace kvn_posix {
namespace {

// Closed objects wait this long (in objects closed after them) before their
// memory serves a new object: a handle used just after its close must fail,
// not name the next object created.
const size_t kRetiredObjects = 1024;

thread_local DWORD t_lastError = 0;

// Objects and thread records are never freed: detached threads may still use
// them while the process runs its static destructors, and a stale pointer
// must never reach freed memory.
template <class T>
struct Pool {
    std::mutex lock;
    T* head = nullptr;
    T* tail = nullptr;
    size_t size = 0;
};

Pool<KernelObject>& Objects() {
    static auto* pool = new Pool<KernelObject>;
    return *pool;
}

Pool<ThreadState>& Threads() {
    static auto* pool = new Pool<ThreadState>;
    return *pool;
}

template <class T>
T* Take(Pool<T>& pool, size_t keep) {
    {
        std::lock_guard<std::mutex> guard(pool.lock);
        if (pool.size > keep) {
            T* t = pool.head;
            pool.head = t->poolNext;
            if (!pool.head) pool.tail = nullptr;
            --pool.size;
            t->poolNext = nullptr;
            return t;
        }
    }
    return new (std::nothrow) T;
}

template <class T>
void Give(Pool<T>& pool, T* t) {
    std::lock_guard<std::mutex> guard(pool.lock);
    t->poolNext = nullptr;
    if (pool.tail) pool.tail->poolNext = t;
    else pool.head = t;
    pool.tail = t;
    ++pool.size;
}

// Collects the threads to wake while an object's lock is held; the system
// calls are made once it is released (the collector is declared before the
// lock guard), so that a woken thread does not run into the lock.
class Wakeups {
public:
    Wakeups() = default;
    Wakeups(const Wakeups&) = delete;
    Wakeups& operator=(const Wakeups&) = delete;
    ~Wakeups() {
        for (int i = 0; i < m_count; ++i) Kick(m_threads[i]);
    }
    void Add(ThreadState* t) {
        if (t->wake.exchange(kNotified) != kParked) return;  // it looks again anyway
        if (m_count < kMax) m_threads[m_count++] = t;
        else Kick(t);
    }

private:
    static const int kMax = 16;
    ThreadState* m_threads[kMax];
    int m_count = 0;
};

KernelObject* Validate(HANDLE h, ObjectKind kind) {
    KernelObject* o = static_cast<KernelObject*>(h);
    if (!KvnIsHandleOpen(h) || !IsOpen(o, kind)) {
        KvnSetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return o;
}

void Unlink(ThreadState& self, KernelObject* m) {
    if (m->heldPrev) m->heldPrev->heldNext = m->heldNext;
    else self.heldHead = m->heldNext;
    if (m->heldNext) m->heldNext->heldPrev = m->heldPrev;
    m->heldPrev = m->heldNext = nullptr;
}

// Frees a mutex that its holder gives up: released, or abandoned when the
// holder ended still holding it.
void FreeMutex(ThreadState& self, KernelObject* m, bool abandon) {
    m->count = 0;
    Unlink(self, m);
    if (abandon) m->abandoned.store(true);
    m->owner.store(nullptr);
    if (m->nWaiters.load() > 0) WakeWaiters(m);
    Unreference(m);  // the holder's
}

// The record a thread leaves behind: what it held is handed on, its thread
// object signalled, its epoll watches dropped, and the record goes back to
// the pool.
struct ThreadRecord {
    ThreadState* state = nullptr;
    ~ThreadRecord() {
        if (!state) return;
        ThreadState& self = *state;
        while (self.heldHead) FreeMutex(self, self.heldHead, true);
        for (int i = 0; i < self.nWatches; ++i) {
            SocketEventUnwatch(self.watches[i].event, self, self.watches[i].generation);
            Unreference(self.watches[i].event);
            self.watches[i] = Watch();
        }
        self.nWatches = 0;
        // Signalled only now, after the mutexes were abandoned: whoever waits
        // for the thread to end then finds them free, as on Windows.
        if (KernelObject* t = self.threadObject) {
            self.threadObject = nullptr;
            t->signalled.store(1);
            WakeWaiters(t);
            Unreference(t);
        }
        self.wake.store(kRunning);
        t_currentThread = nullptr;
        Give(Threads(), state);
        state = nullptr;
    }
};

}  // namespace

KernelObject* CreateObject(ObjectKind kind) {
    KernelObject* o = Take(Objects(), kRetiredObjects);
    if (!o) return nullptr;
    o->refs.store(1);
    o->tag.store(static_cast<std::uint32_t>(kind) | kOpen, std::memory_order_release);
    return o;
}

void Reference(KernelObject* o) { o->refs.fetch_add(1); }

void Unreference(KernelObject* o) {
    if (o->refs.fetch_sub(1) != 1) return;
    // Nobody uses it any more: back to its first state, then to the pool.
    o->signalled.store(0);
    o->manualReset = false;
    o->owner.store(nullptr);
    o->count = 0;
    o->abandoned.store(false);
    o->heldPrev = o->heldNext = nullptr;
    o->socket = SocketBinding();
    o->lentTo.store(nullptr);
    const int fd = o->pollFd.exchange(-1);
    if (fd >= 0) close(fd);
    o->pollFdReadable = false;
    Give(Objects(), o);
}

void SyncPollFdSlow(KernelObject* o) {
    std::lock_guard<std::mutex> guard(o->lock);
    const int fd = o->pollFd.load();
    const bool set = o->signalled.load() != 0;
    if (fd < 0 || set == o->pollFdReadable) return;
    // The counter only ever holds 0 or 1: one write makes it readable, one
    // read empties it.
    std::uint64_t one = 1;
    const ssize_t n = set ? write(fd, &one, sizeof one) : read(fd, &one, sizeof one);
    if (n == static_cast<ssize_t>(sizeof one)) o->pollFdReadable = set;
}

void WakeWaiters(KernelObject* o) {
    Wakeups wakeups;
    std::lock_guard<std::mutex> guard(o->lock);
    for (WaitLink* l = o->waiters; l; l = l->next) wakeups.Add(l->thread);
}

thread_local ThreadState* t_currentThread = nullptr;

ThreadState& CurrentThreadSlow() {
    thread_local ThreadRecord record;
    if (!record.state) {
        record.state = Take(Threads(), 0);
        // Without a record the thread cannot wait at all; there is nothing
        // better to do than to stop here.
        if (!record.state) std::terminate();
    }
    t_currentThread = record.state;
    return *record.state;
}

void AttachThreadObject(KernelObject* object) { CurrentThread().threadObject = object; }

}  // namespace kvn_posix

using namespace kvn_posix;

HANDLE KvnCreateEvent(BOOL manualReset, BOOL initialState) {
    KernelObject* o = CreateObject(ObjectKind::Event);
    if (!o) {
        KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    o->manualReset = manualReset != FALSE;
    o->signalled.store(initialState ? 1 : 0);
    return o;
}

namespace {

// Sets or resets an event or a socket event.
BOOL SetSignalled(HANDLE h, bool on) {
    KernelObject* o = static_cast<KernelObject*>(h);
    if (!KvnIsHandleOpen(h) ||
        (!IsOpen(o, ObjectKind::Event) && !IsOpen(o, ObjectKind::SocketEvent))) {
        KvnSetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    o->signalled.store(on ? 1 : 0);
    // Against a waiter that registers and then looks (Waits.cpp): either it
    // sees the set or this sees it registered.
    if (on && o->nWaiters.load() > 0) WakeWaiters(o);
    SyncPollFd(o);
    return TRUE;
}

}  // namespace

BOOL KvnSetEvent(HANDLE hEvent) { return SetSignalled(hEvent, true); }

BOOL KvnResetEvent(HANDLE hEvent) { return SetSignalled(hEvent, false); }

HANDLE KvnCreateMutex() {
    KernelObject* o = CreateObject(ObjectKind::Mutex);
    if (!o) KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return o;
}

namespace kvn_posix {

bool TryTakeMutex(KernelObject* m, ThreadState& self, bool& abandoned) {
    ThreadState* owner = m->owner.load();
    if (owner == &self) {
        ++m->count;
        return true;
    }
    if (owner != nullptr || !m->owner.compare_exchange_strong(owner, &self)) return false;
    m->count = 1;
    // Set before the previous holder let go, so seen here when it was.
    abandoned = m->abandoned.load() && m->abandoned.exchange(false);
    Reference(m);  // the holder's
    m->heldPrev = nullptr;
    m->heldNext = self.heldHead;
    if (self.heldHead) self.heldHead->heldPrev = m;
    self.heldHead = m;
    return true;
}

}  // namespace kvn_posix

BOOL KvnReleaseMutex(HANDLE hMutex) {
    KernelObject* m = Validate(hMutex, ObjectKind::Mutex);
    if (!m) return FALSE;
    ThreadState& self = CurrentThread();
    if (m->owner.load() != &self) {
        KvnSetLastError(ERROR_NOT_OWNER);
        return FALSE;
    }
    if (--m->count == 0) FreeMutex(self, m, false);
    return TRUE;
}

BOOL KvnCloseHandle(HANDLE h) {
    KernelObject* o = OpenObject(h);
    std::uint32_t tag = o ? o->tag.load() : 0;
    // Only one of two closes racing on the same handle succeeds.
    if (!o || (tag & kOpen) == 0 || !o->tag.compare_exchange_strong(tag, tag & ~kOpen)) {
        KvnSetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (static_cast<ObjectKind>(tag & ~kOpen) == ObjectKind::SocketEvent) SocketEventClosed(o);
    Unreference(o);
    return TRUE;
}

DWORD KvnGetLastError() { return t_lastError; }

void KvnSetLastError(DWORD code) { t_lastError = code; }

int KvnGetEventFd(HANDLE h) {
    KernelObject* o = static_cast<KernelObject*>(h);
    if (!KvnIsHandleOpen(h) || !IsOpen(o, ObjectKind::Event)) {
        KvnSetLastError(ERROR_INVALID_HANDLE);
        return -1;
    }
    {
        std::lock_guard<std::mutex> guard(o->lock);
        if (o->pollFd.load() < 0) {
            const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
            if (fd < 0) {
                KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return -1;
            }
            o->pollFd.store(fd);
        }
    }
    SyncPollFd(o);
    return o->pollFd.load();
}

kvn::Bool kvn::ResetEvent(kvn::HANDLE h) {
    KernelObject* o = static_cast<KernelObject*>(h);
    // The application's events only, not its sockets' nor its threads'.
    return KvnIsHandleOpen(h) && IsOpen(o, ObjectKind::Event) ? KvnResetEvent(h) : FALSE;
}
