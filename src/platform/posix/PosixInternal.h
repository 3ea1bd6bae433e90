// Internals of the POSIX backend shared between its files: the kernel objects
// that HANDLEs point to, the one lock that guards all of their state, the
// per-thread record that waits and owns mutexes, and the helpers that the
// socket-event and thread files need from the kernel-object core.
//
// Not for use outside src/platform/posix/.
#ifndef KORVANE_PLATFORM_POSIX_POSIXINTERNAL_H
#define KORVANE_PLATFORM_POSIX_POSIXINTERNAL_H

#include <mutex>
#include <string>
#include <vector>

#include <korvane/platform/KvnTypes.h>

namespace kvn_posix {

struct ThreadState;

enum class ObjectKind { Event, Mutex, Thread, SocketEvent };

// Every field of every object is guarded by KernelLock().
//
// An object lives while it is referenced: by its open handle, by each wait in
// progress on it, by the thread that holds it (a mutex) or runs it (a thread
// object). Closing the handle only drops the handle's reference, so a handle
// closed while another thread waits on it, or while its thread runs, stays
// safe.
struct KernelObject {
    explicit KernelObject(ObjectKind k) : kind(k) {}
    virtual ~KernelObject() = default;
    KernelObject(const KernelObject&) = delete;
    KernelObject& operator=(const KernelObject&) = delete;

    const ObjectKind kind;
    int refs = 1;                       // the open handle's reference
    std::vector<ThreadState*> waiters;  // threads blocked in a wait on this object
};

struct EventObject : KernelObject {
    EventObject(bool manual, bool initial)
        : KernelObject(ObjectKind::Event), manualReset(manual), signalled(initial) {}
    const bool manualReset;
    bool signalled;
};

struct MutexObject : KernelObject {
    MutexObject() : KernelObject(ObjectKind::Mutex) {}
    ThreadState* owner = nullptr;
    unsigned count = 0;      // recursion depth of the owner
    bool abandoned = false;  // the last owner ended holding it; told to the next taker
};

struct ThreadObject : KernelObject {
    ThreadObject() : KernelObject(ObjectKind::Thread) {}
    bool ended = false;
};

// A manual-reset event bound to at most one socket. "signalled" is the event
// itself; "record" is the set of network events noticed and not yet taken by
// KvnEnumNetworkEvents. The socket is probed (a non-blocking peek) only while
// the record is empty, so a record never holds FD_READ and FD_CLOSE together.
struct SocketEventObject : KernelObject {
    SocketEventObject() : KernelObject(ObjectKind::SocketEvent) {}
    bool signalled = false;
    int fd = -1;               // bound socket, -1 when none
    long mask = 0;             // FD_READ and/or FD_CLOSE
    long record = 0;
    int closeError = 0;        // Windows Sockets error number sent with FD_CLOSE
    bool endSeen = false;      // the stream ended (close or error): no more probing
    bool notConnected = false; // the last probe found no connection: not polled
    bool datagram = false;     // a zero-length datagram is data, not a close
};

// The calling thread's record: its wake-up pipe, the mutexes it holds and,
// for threads started by this layer, the object its handle points to.
// Its destructor runs when the thread ends (any thread: ours, std::thread,
// the main thread at exit) and hands the mutexes it still holds to their next
// waiters as abandoned, then signals the thread object.
struct ThreadState {
    ThreadState() = default;
    ~ThreadState();
    ThreadState(const ThreadState&) = delete;
    ThreadState& operator=(const ThreadState&) = delete;

    int wakeRead = -1;                // created on the first blocking wait
    int wakeWrite = -1;
    bool wakePending = false;         // a byte sits in the pipe (guarded by the lock)
    std::vector<MutexObject*> held;   // each holds a reference (guarded by the lock)
    ThreadObject* threadObject = nullptr;
};

// The single lock over every kernel object, the handle registry and the
// socket bindings. Nothing blocks while holding it except for the quick
// non-blocking system calls that probe a socket or wake a waiter.
std::mutex& KernelLock();

// With the lock held: adds the object to the registry of live handles and
// returns it as a handle, or null (and deletes it) when memory ran out.
HANDLE PublishObject(KernelObject* object);
// With the lock held: the live object behind h, or null.
KernelObject* FindObject(HANDLE h);
// With the lock held: drops one reference, deleting the object at zero.
void Unreference(KernelObject* object);
// With the lock held: makes every thread waiting on the object re-examine
// its wait.
void WakeWaiters(KernelObject* object);

ThreadState& CurrentThread();
// Called first thing by a thread started by this layer: its end signals
// object, which it holds a reference to.
void AttachThreadObject(ThreadObject* object);

// Socket events (SocketEvents.cpp), all with the lock held.
// Probes the socket when needed; true when the event is signalled.
bool SocketEventSignalled(SocketEventObject* event);
// The descriptor a waiter should poll for this event, or -1.
int SocketEventPollFd(const SocketEventObject* event);
// Forgets the event's socket and wakes its waiters.
void UnbindSocketEvent(SocketEventObject* event);

// Without the lock: unbinds any socket event from fd before it is closed.
void ForgetSocket(int fd);

// errno to a Windows Sockets error number (Sockets.cpp).
int WsaErrorFromErrno(int err);

// Text conversions that do not depend on the process locale (Text.cpp).
// Invalid input becomes U+FFFD; false only when memory ran out.
bool WideToUtf8(const wchar_t* text, std::string& out);
bool Utf8ToWide(const char* text, std::wstring& out);

}  // namespace kvn_posix

#endif
