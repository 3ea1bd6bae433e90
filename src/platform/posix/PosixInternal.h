// Internals of the POSIX backend shared between its files: the kernel objects
// that HANDLEs point to, the per-thread record that waits and holds mutexes,
// and the helpers that the socket-event and thread files need from the core.
//
// Not for use outside src/platform/posix/.
#ifndef KORVANE_PLATFORM_POSIX_POSIXINTERNAL_H
#define KORVANE_PLATFORM_POSIX_POSIXINTERNAL_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <sys/types.h>

#include <korvane/platform/KvnTypes.h>

#include "platform/Kernel.h"

namespace kvn_posix {

struct ThreadState;
struct KernelObject;

enum class ObjectKind : std::uint32_t { Event = 1, Mutex = 2, Thread = 3, SocketEvent = 4 };

// One thread's place in the list of waiters of one object, for the length of
// one blocking wait; it lives on the waiting thread's stack and is only
// touched under the object's lock.
struct WaitLink {
    ThreadState* thread = nullptr;
    WaitLink* prev = nullptr;
    WaitLink* next = nullptr;
};

// What a socket event knows of the socket it is bound to. The event keeps a
// descriptor of its own for the socket (a duplicate), so that what it reports
// and what its waiters watch is that socket whatever becomes of the number
// the application holds. Guarded by the object's lock.
struct SocketBinding {
    int fd = -1;               // the event's own descriptor, -1 when unbound
    dev_t dev = 0;             // the socket's identity, for KvnCloseSocket
    ino_t ino = 0;
    long mask = 0;             // FD_READ and/or FD_CLOSE
    long record = 0;           // network events noticed and not yet taken
    int closeError = 0;        // Windows Sockets error number sent with FD_CLOSE
    bool endSeen = false;      // the stream ended (close or error): not watched any more
    bool notConnected = false; // the last look found no connection: not watched
    bool datagram = false;     // a zero-length datagram is data, not a close
    std::uint32_t generation = 0;         // changes with every (un)binding
    // The threads whose epoll set holds fd, with the data of their
    // registration.
    struct Watcher {
        ThreadState* thread;
        std::uint64_t serial;
    };
    std::vector<Watcher> watchers;
};

// A kernel object. A HANDLE is its address. Objects are never given back to
// the allocator: a closed one is kept for a while, then used again for a new
// object, so that a stale handle reads a closed object (or, much later, a
// newer one, as a reused Windows handle value would) rather than freed memory.
//
// Each object carries its own state and its own waiters; there is no lock
// shared between objects on the paths that set, reset, take or wait.
struct KernelObject {
    // kind, plus kOpen while the handle is open. A handle is valid while its
    // object reads as open.
    std::atomic<std::uint32_t> tag{0};
    // The open handle, each wait in progress, the thread that holds it (a
    // mutex) or runs it (a thread), each thread whose epoll set watches it (a
    // socket event). At zero the object goes back to the pool.
    std::atomic<int> refs{0};

    std::mutex lock;  // guards the waiter list and the socket binding
    WaitLink* waiters = nullptr;
    std::atomic<int> nWaiters{0};

    // Events, socket events (manual reset) and thread objects (ended).
    bool manualReset = false;
    std::atomic<int> signalled{0};

    // Mutexes. count and the held links belong to the owner alone.
    std::atomic<ThreadState*> owner{nullptr};
    unsigned count = 0;
    std::atomic<bool> abandoned{false};
    KernelObject* heldPrev = nullptr;
    KernelObject* heldNext = nullptr;

    SocketBinding socket;
    // While a socket event is lent (KvnLendSocketEvent), only this thread
    // watches its socket and sees it signalled: the others' registrations are
    // disarmed, and armed again on its return. Written under lock; read
    // without it by the waits' looks.
    std::atomic<ThreadState*> lentTo{nullptr};

    // Events whose application asked for a descriptor (KvnGetEventFd): an
    // eventfd that is readable while the event is set; -1 for the others.
    std::atomic<int> pollFd{-1};
    bool pollFdReadable = false;  // guarded by lock

    KernelObject* poolNext = nullptr;
};

const std::uint32_t kOpen = 0x100;

inline bool IsOpen(const KernelObject* o, ObjectKind kind) {
    return o->tag.load(std::memory_order_acquire) == (static_cast<std::uint32_t>(kind) | kOpen);
}
inline ObjectKind KindOf(const KernelObject* o) {
    return static_cast<ObjectKind>(o->tag.load(std::memory_order_acquire) & ~kOpen);
}

// An open object from the pool, with one reference (its handle's); null when
// memory ran out.
KernelObject* CreateObject(ObjectKind kind);
// The object behind an open handle of any kind, or null.
inline KernelObject* OpenObject(HANDLE h) {
    KernelObject* o = static_cast<KernelObject*>(h);
    if (!KvnIsHandleOpen(h) || (o->tag.load(std::memory_order_acquire) & kOpen) == 0) return nullptr;
    return o;
}
void Reference(KernelObject* o);
// Drops one reference; at zero the object goes back to the pool.
void Unreference(KernelObject* o);

// Every thread waiting on o looks at its wait again. Takes o's lock.
void WakeWaiters(KernelObject* o);
// After a change of an event's state: its descriptor, if it has one, follows.
inline void SyncPollFd(KernelObject* o);

// A socket event watched by a thread's epoll set.
struct Watch {
    KernelObject* event = nullptr;  // holds a reference
    std::uint32_t generation = 0;
    std::uint64_t serial = 0;       // the epoll registration's data
};
const int kMaxWatches = 64;

// The calling thread's record. Records are never freed: one that a thread has
// left goes to the next thread that needs one, so a waker that is late by a
// moment only causes a spurious look at a wait, never a write to freed memory.
struct ThreadState {
    // kRunning, kParked (asleep in a wait), kNotified (woken).
    std::atomic<int> wake{0};
    // How the thread is woken while parked: kParkFutex or kParkEventFd.
    std::atomic<int> parkMode{0};
    // For waits that include sockets: an eventfd registered edge-triggered in
    // an epoll set, so that a wake-up is one write and needs no read (a wait
    // that polls its sockets instead reads it back).
    int eventFd = -1;
    int epollFd = -1;
    Watch watches[kMaxWatches];
    int nWatches = 0;

    KernelObject* heldHead = nullptr;     // mutexes held, most recent first
    KernelObject* threadObject = nullptr; // for threads started by this layer
    ThreadState* poolNext = nullptr;
};

const int kRunning = 0;
const int kParked = 1;
const int kNotified = 2;
const int kParkFutex = 0;
const int kParkEventFd = 1;

// The calling thread's record, made on its first use. Looked up on every
// wait and every release of a mutex: the common case is one read of a plain
// thread-local pointer.
ThreadState& CurrentThreadSlow();
#if defined(__GNUC__)
extern thread_local ThreadState* t_currentThread __attribute__((tls_model("initial-exec")));
#else
extern thread_local ThreadState* t_currentThread;
#endif
inline ThreadState& CurrentThread() {
    ThreadState* self = t_currentThread;
    return self ? *self : CurrentThreadSlow();
}
// Called first thing by a thread started by this layer: its end signals the
// thread object, which it holds a reference to.
void AttachThreadObject(KernelObject* object);

void SyncPollFdSlow(KernelObject* o);
inline void SyncPollFd(KernelObject* o) {
    if (o->pollFd.load() >= 0) SyncPollFdSlow(o);
}

// Makes sure the thread has its eventfd and epoll set; false when the system
// refused them.
bool PrepareEpoll(ThreadState& self);

// Wakes a thread that was seen parked (one system call).
void Kick(ThreadState* t);

// Takes mutex m for self if it is free (or self holds it already); abandoned
// tells the taker of a mutex whose previous holder ended holding it.
bool TryTakeMutex(KernelObject* m, ThreadState& self, bool& abandoned);

// Socket events (SocketEvents.cpp); each takes the event's lock.
// True when the event is signalled and not lent to another thread; looks at
// the socket first when no epoll set can watch it (a socket that was not
// connected last time).
bool SocketEventReady(KernelObject* event, ThreadState& self);
// Puts the event's socket in the thread's epoll set when it may be watched
// (bound, connected, nothing recorded, not signalled). True when it was put
// there; generation receives the binding it was put there for.
bool SocketEventWatch(KernelObject* event, ThreadState& self, std::uint64_t serial,
                      std::uint32_t& generation);
// The socket the thread watches for this binding may still be watched by it.
bool SocketEventStillWatchable(KernelObject* event, ThreadState& self, std::uint32_t generation);
// Takes the socket out of the thread's epoll set, if the binding is still
// the one it was put there for.
void SocketEventUnwatch(KernelObject* event, ThreadState& self, std::uint32_t generation);
// The event's own descriptor when the event is lent to the thread (which
// then polls it itself, outside its epoll set) and its socket may be
// watched, with the binding in generation; -1 when lent to the thread with
// nothing to watch; kNotLent otherwise.
const int kNotLent = -2;
int SocketEventLentFd(KernelObject* event, ThreadState& self, std::uint32_t& generation);
// Takes in what epoll or poll reported for the event's socket; true when that
// made the event signalled.
bool SocketEventReport(KernelObject* event, ThreadState& self, std::uint32_t generation,
                       std::uint32_t epollEvents);
// Closing the handle of a socket event: forgets its socket.
void SocketEventClosed(KernelObject* event);

// Without any lock: releases the socket event bound to fd (if any) before fd
// is closed, so that the socket really closes with it.
void ForgetSocket(int fd);

// errno to a Windows Sockets error number (Sockets.cpp).
int WsaErrorFromErrno(int err);

// Text conversions that do not depend on the process locale (Text.cpp).
// Invalid input becomes U+FFFD; false only when memory ran out.
bool WideToUtf8(const wchar_t* text, std::string& out);
bool Utf8ToWide(const char* text, std::wstring& out);

}  // namespace kvn_posix

#endif
