// Socket events on POSIX: the WSACreateEvent / WSAEventSelect /
// WSAEnumNetworkEvents trio over a manual-reset event of our own.
//
// An event bound to a socket takes a descriptor of its own for it (a
// duplicate): what it watches and reports is that socket, whatever later
// becomes of the number the application holds (closed, and given to another
// socket). Threads that wait on the event keep that descriptor in their epoll
// set (Waits.cpp), except a thread it is lent to, which polls it itself; when
// epoll or poll reports it, data is FD_READ, and a hang-up or
// an error is told apart by peeking one byte: data still unread is FD_READ,
// the end of the stream FD_CLOSE with error 0, a failure such as a reset
// FD_CLOSE with its Windows Sockets error. Nothing is polled on a timer.
//
// The sockets bound to events are known by their identity (device and inode
// of the socket), not by their number, so that KvnCloseSocket can release
// the event's descriptor before the socket itself is closed.
//
// Where this differs from Windows:
//  - FD_READ is a level: after KvnEnumNetworkEvents it is reported again as
//    long as unread data remains (Windows re-arms it at the next recv);
//  - the peer's close is reported once, and only after the data sent before
//    it has been read: FD_READ and FD_CLOSE never come in the same set;
//  - only FD_READ and FD_CLOSE exist, and FD_CLOSE only together with
//    FD_READ (another set fails with WSAEINVAL); FD_WRITE, FD_ACCEPT and
//    FD_CONNECT are not reported;
//  - an event watches at most one socket: selecting it for a second socket
//    unbinds the first;
//  - KvnEnumNetworkEvents with a socket event takes the record of the
//    socket that event is bound to, and nothing once it is bound to none
//    (the socket argument serves only without a socket event);
//  - a socket that is not connected reports nothing and is not watched
//    until a later look finds it connected;
//  - a socket bound to an event must be closed with KvnCloseSocket (which
//    releases the event's descriptor); one closed otherwise stays open until
//    the event is bound elsewhere or closed.
#include "platform/Sockets.h"

#include <cerrno>
#include <climits>
#include <map>
#include <mutex>
#include <utility>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "platform/Kernel.h"
#include "platform/posix/PosixInternal.h"

namespace kvn_posix {
namespace {

typedef std::pair<dev_t, ino_t> Identity;

// The sockets bound to events, by identity. Taken before any event's lock;
// used only to bind, unbind and close, never by a wait.
struct Bindings {
    std::mutex lock;
    std::map<Identity, KernelObject*> events;
};

Bindings& TheBindings() {
    static auto* bindings = new Bindings;
    return *bindings;
}

bool IdentityOf(int fd, Identity& id) {
    struct stat st;
    if (fstat(fd, &st) != 0) return false;
    id = Identity(st.st_dev, st.st_ino);
    return true;
}

// Records what the socket has to tell, if the record is empty. Event locked.
void Probe(KernelObject* e) {
    SocketBinding& b = e->socket;
    if (b.fd < 0 || b.endSeen || b.record != 0) return;
    char byte;
    ssize_t n = recv(b.fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n > 0 || (n == 0 && b.datagram)) {
        b.notConnected = false;
        if (b.mask & FD_READ) {
            b.record = FD_READ;
            e->signalled.store(1);
        }
        return;
    }
    int err = n == 0 ? 0 : errno;
    if (n < 0) {
        if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) {
            b.notConnected = false;
            return;
        }
        if (err == ENOTCONN) {
            b.notConnected = true;
            return;
        }
        // A datagram socket's error (an ICMP refusal) was consumed by the
        // peek and ends nothing.
        if (b.datagram) return;
    }
    // The stream ended: reported once, and the socket is not looked at again.
    b.endSeen = true;
    if (b.mask & FD_CLOSE) {
        b.record = FD_CLOSE;
        b.closeError = WsaErrorFromErrno(err);
        e->signalled.store(1);
    }
}

bool Watchable(const KernelObject* e, const ThreadState& self) {
    const SocketBinding& b = e->socket;
    const ThreadState* const lent = e->lentTo.load();
    return b.fd >= 0 && !b.endSeen && !b.notConnected && b.record == 0 &&
           e->signalled.load() == 0 && (lent == nullptr || lent == &self);
}

// Forgets the event's socket: out of every watcher's epoll set first, then
// the event's descriptor closed. Bindings and event locked; the caller wakes
// the waiters.
void Unbind(KernelObject* e) {
    SocketBinding& b = e->socket;
    if (b.fd < 0) return;
    for (const SocketBinding::Watcher& w : b.watchers)
        epoll_ctl(w.thread->epollFd, EPOLL_CTL_DEL, b.fd, nullptr);
    b.watchers.clear();
    e->lentTo.store(nullptr);
    auto it = TheBindings().events.find(Identity(b.dev, b.ino));
    if (it != TheBindings().events.end() && it->second == e) TheBindings().events.erase(it);
    close(b.fd);
    b.fd = -1;
    b.mask = 0;
    ++b.generation;
}

int Fail(int wsaError) {
    KvnSetLastError(static_cast<DWORD>(wsaError));
    return -1;
}

KernelObject* SocketEventOf(HANDLE h) {
    KernelObject* o = static_cast<KernelObject*>(h);
    return KvnIsHandleOpen(h) && IsOpen(o, ObjectKind::SocketEvent) ? o : nullptr;
}

}  // namespace

bool SocketEventReady(KernelObject* e, ThreadState& self) {
    // Lent to another thread, it is that thread's alone to look at; its
    // return wakes the others if it is signalled then.
    ThreadState* const lent = e->lentTo.load();
    if (lent != nullptr && lent != &self) return false;
    if (e->signalled.load() != 0) return true;
    std::lock_guard<std::mutex> guard(e->lock);
    // A socket found not connected is not watched: it is looked at again on
    // every look of a wait, until it is.
    if (e->socket.notConnected) Probe(e);
    return e->signalled.load() != 0;
}

bool SocketEventWatch(KernelObject* e, ThreadState& self, std::uint64_t serial,
                      std::uint32_t& generation) {
    std::lock_guard<std::mutex> guard(e->lock);
    if (!Watchable(e, self)) return false;
    epoll_event ev;
    ev.events = EPOLLIN | EPOLLRDHUP;
    ev.data.u64 = serial;
    if (epoll_ctl(self.epollFd, EPOLL_CTL_ADD, e->socket.fd, &ev) != 0 &&
        (errno != EEXIST || epoll_ctl(self.epollFd, EPOLL_CTL_MOD, e->socket.fd, &ev) != 0)) {
        return false;
    }
    try {
        e->socket.watchers.push_back(SocketBinding::Watcher{&self, serial});
    } catch (...) {
        epoll_ctl(self.epollFd, EPOLL_CTL_DEL, e->socket.fd, nullptr);
        return false;
    }
    generation = e->socket.generation;
    return true;
}

bool SocketEventStillWatchable(KernelObject* e, ThreadState& self, std::uint32_t generation) {
    std::lock_guard<std::mutex> guard(e->lock);
    return e->socket.generation == generation && Watchable(e, self);
}

void SocketEventUnwatch(KernelObject* e, ThreadState& self, std::uint32_t generation) {
    std::lock_guard<std::mutex> guard(e->lock);
    SocketBinding& b = e->socket;
    // An unbinding took it out of every set already.
    if (b.generation != generation || b.fd < 0) return;
    for (size_t i = 0; i < b.watchers.size(); ++i) {
        if (b.watchers[i].thread != &self) continue;
        epoll_ctl(self.epollFd, EPOLL_CTL_DEL, b.fd, nullptr);
        b.watchers.erase(b.watchers.begin() + static_cast<long>(i));
        return;
    }
}

int SocketEventLentFd(KernelObject* e, ThreadState& self, std::uint32_t& generation) {
    std::lock_guard<std::mutex> guard(e->lock);
    if (e->socket.fd < 0 || e->lentTo.load() != &self) return kNotLent;
    if (!Watchable(e, self)) return -1;
    generation = e->socket.generation;
    return e->socket.fd;
}

bool SocketEventReport(KernelObject* e, ThreadState& self, std::uint32_t generation,
                       std::uint32_t epollEvents) {
    std::lock_guard<std::mutex> guard(e->lock);
    if (e->socket.generation != generation || !Watchable(e, self)) return false;
    if (epollEvents & (EPOLLERR | EPOLLHUP | EPOLLRDHUP)) {
        // Data may still come before the end: the peek tells.
        Probe(e);
    } else if ((epollEvents & EPOLLIN) && (e->socket.mask & FD_READ)) {
        e->socket.record = FD_READ;
        e->signalled.store(1);
    }
    // While the socket is lent, the others' waits are not disturbed: the
    // borrower alone looks at what came.
    return e->signalled.load() != 0 && e->lentTo.load() != &self;
}

void SocketEventClosed(KernelObject* e) {
    {
        std::lock_guard<std::mutex> bindings(TheBindings().lock);
        std::lock_guard<std::mutex> guard(e->lock);
        Unbind(e);
    }
    WakeWaiters(e);
}

void ForgetSocket(int fd) {
    Identity id;
    if (!IdentityOf(fd, id)) return;
    KernelObject* e = nullptr;
    {
        std::lock_guard<std::mutex> bindings(TheBindings().lock);
        auto it = TheBindings().events.find(id);
        if (it == TheBindings().events.end()) return;
        e = it->second;
        std::lock_guard<std::mutex> guard(e->lock);
        Unbind(e);
        // Until the waiters have been told, the object must not go back to
        // the pool (its handle may be closed by now).
        Reference(e);
    }
    WakeWaiters(e);
    Unreference(e);
}

}  // namespace kvn_posix

using namespace kvn_posix;

WSAEVENT KvnCreateSocketEvent() {
    KernelObject* o = CreateObject(ObjectKind::SocketEvent);
    if (!o) KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
    else o->manualReset = true;
    return o;
}

BOOL KvnCloseSocketEvent(WSAEVENT hEvent) { return KvnCloseHandle(hEvent); }

BOOL KvnResetSocketEvent(WSAEVENT hEvent) { return KvnResetEvent(hEvent); }

int KvnSocketEventSelect(SOCKET s, WSAEVENT hEvent, long events) {
    if (s > static_cast<SOCKET>(INT_MAX)) return Fail(WSAENOTSOCK);
    const int fd = static_cast<int>(s);
    const long supported = FD_READ | FD_CLOSE;
    if ((events & ~supported) != 0 || events == FD_CLOSE) return Fail(WSAEINVAL);

    Identity id;
    if (!IdentityOf(fd, id)) return Fail(WSAENOTSOCK);
    bool datagram = false;
    if (events != 0) {
        int flags = fcntl(fd, F_GETFL);
        if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
            return Fail(WsaErrorFromErrno(errno));
        }
        int type = 0;
        socklen_t length = sizeof type;
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0) {
            return Fail(WsaErrorFromErrno(errno));
        }
        datagram = type == SOCK_DGRAM;
    }

    KernelObject* e = SocketEventOf(hEvent);
    if (!e) return Fail(WSAEINVAL);
    const int own = events != 0 ? fcntl(fd, F_DUPFD_CLOEXEC, 3) : -1;
    if (events != 0 && own < 0) return Fail(WsaErrorFromErrno(errno));
    KernelObject* previous = nullptr;
    bool bound = events == 0;
    {
        std::lock_guard<std::mutex> bindings(TheBindings().lock);
        // A new selection replaces the socket's previous one.
        auto it = TheBindings().events.find(id);
        if (it != TheBindings().events.end() && it->second != e) {
            previous = it->second;
            std::lock_guard<std::mutex> guard(previous->lock);
            Unbind(previous);
            Reference(previous);  // until its waiters are told
        }
        std::lock_guard<std::mutex> guard(e->lock);
        Unbind(e);
        SocketBinding& b = e->socket;
        b.record = 0;
        b.closeError = 0;
        b.endSeen = false;
        b.notConnected = false;
        if (events != 0) {
            try {
                TheBindings().events[id] = e;
                b.fd = own;
                b.dev = id.first;
                b.ino = id.second;
                b.mask = events;
                b.datagram = datagram;
                bound = true;
            } catch (...) {
                close(own);
            }
        }
    }
    if (previous) {
        WakeWaiters(previous);
        Unreference(previous);
    }
    // Threads already waiting on the event start watching the socket.
    WakeWaiters(e);
    return bound ? 0 : Fail(10055);  // WSAENOBUFS
}

int KvnEnumNetworkEvents(SOCKET s, WSAEVENT hEvent, long* events, int* closeError) {
    if (s > static_cast<SOCKET>(INT_MAX)) return Fail(WSAENOTSOCK);
    const int fd = static_cast<int>(s);

    KernelObject* given = nullptr;
    if (hEvent) {
        given = static_cast<KernelObject*>(hEvent);
        if (!KvnIsHandleOpen(hEvent) ||
            (!IsOpen(given, ObjectKind::SocketEvent) && !IsOpen(given, ObjectKind::Event))) {
            return Fail(WSAEINVAL);
        }
    }
    long taken = 0;
    int error = 0;
    // Takes the record of the socket bound to `bound`, whose lock is held.
    auto take = [&](KernelObject* bound) {
        Probe(bound);
        taken = bound->socket.record;
        error = bound->socket.closeError;
        bound->socket.record = 0;
        bound->socket.closeError = 0;
    };
    if (given && KindOf(given) == ObjectKind::SocketEvent) {
        // Only the event's own socket: one it no longer watches (closed, and
        // its number perhaps taken by another socket) has nothing to tell.
        std::lock_guard<std::mutex> guard(given->lock);
        if (given->socket.fd >= 0) take(given);
        // Reset under the lock: a report coming just after sets both again.
        given->signalled.store(0);
    } else {
        Identity id;
        if (!IdentityOf(fd, id)) return Fail(WSAENOTSOCK);
        {
            std::lock_guard<std::mutex> bindings(TheBindings().lock);
            auto it = TheBindings().events.find(id);
            if (it != TheBindings().events.end()) {
                std::lock_guard<std::mutex> guard(it->second->lock);
                take(it->second);
            }
        }
        // As WSAEnumNetworkEvents, the event passed is reset, whichever socket it watches.
        if (given) given->signalled.store(0);
    }
    if (events) *events = taken;
    if (closeError) *closeError = (taken & FD_CLOSE) ? error : 0;
    return 0;
}

BOOL KvnLendSocketEvent(WSAEVENT hEvent) {
    KernelObject* e = SocketEventOf(hEvent);
    if (!e) return FALSE;
    ThreadState& self = CurrentThread();
    std::lock_guard<std::mutex> guard(e->lock);
    SocketBinding& b = e->socket;
    ThreadState* const lent = e->lentTo.load();
    if (b.fd < 0 || (lent != nullptr && lent != &self)) return FALSE;
    e->lentTo.store(&self);
    // The other threads' registrations are disarmed, without waking them,
    // and armed again on the socket's return: cheaper than taking them out
    // and putting them back. A hang-up or an error still reaches them (epoll
    // always reports those); they then find the socket lent and stop
    // watching it until it comes back.
    epoll_event none;
    none.events = 0;
    for (const SocketBinding::Watcher& w : b.watchers) {
        if (w.thread == &self) continue;
        none.data.u64 = w.serial;
        epoll_ctl(w.thread->epollFd, EPOLL_CTL_MOD, b.fd, &none);
    }
    return TRUE;
}

void KvnReturnSocketEvent(WSAEVENT hEvent) {
    KernelObject* e = SocketEventOf(hEvent);
    if (!e) return;
    ThreadState& self = CurrentThread();
    bool wake = false;
    {
        std::lock_guard<std::mutex> guard(e->lock);
        SocketBinding& b = e->socket;
        if (e->lentTo.load() != &self) return;
        e->lentTo.store(nullptr);
        for (const SocketBinding::Watcher& w : b.watchers) {
            if (w.thread == &self) continue;
            epoll_event ev;
            ev.events = EPOLLIN | EPOLLRDHUP;
            ev.data.u64 = w.serial;
            epoll_ctl(w.thread->epollFd, EPOLL_CTL_MOD, b.fd, &ev);
        }
        // Something the borrower left recorded (a close) is told to the
        // others, and so is the socket's return to a thread that looked at
        // its wait meanwhile (and so watches the socket no more).
        wake = e->signalled.load() != 0;
        for (WaitLink* l = e->waiters; l && !wake; l = l->next) {
            bool watching = l->thread == &self;
            for (const SocketBinding::Watcher& w : b.watchers) watching = watching || w.thread == l->thread;
            wake = !watching;
        }
    }
    if (wake) WakeWaiters(e);
}

long KvnPeekNetworkEvents(WSAEVENT hEvent) {
    KernelObject* e = SocketEventOf(hEvent);
    if (!e) return 0;
    std::lock_guard<std::mutex> guard(e->lock);
    Probe(e);
    return e->socket.record;
}
