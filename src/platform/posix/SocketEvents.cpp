// Socket events on POSIX: the WSACreateEvent / WSAEventSelect /
// WSAEnumNetworkEvents trio over a manual-reset event of our own.
//
// There is no system to record network events in the background, so the
// event looks at its socket itself: whenever it is waited on (and in
// KvnEnumNetworkEvents) while nothing is recorded, it peeks one byte without
// blocking. Data is FD_READ; the end of the stream (the peek returns 0) is
// FD_CLOSE with error 0; a failure such as a reset is FD_CLOSE with its
// Windows Sockets error. A waiter blocks in poll() on the bound socket
// together with its wake-up pipe (KernelObjects.cpp), so nothing is polled
// on a timer.
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
//  - a socket that is not connected reports nothing and is not polled until
//    a later check finds it connected.
#include "platform/Sockets.h"

#include <cerrno>
#include <climits>
#include <new>
#include <unordered_map>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "platform/Kernel.h"
#include "platform/posix/PosixInternal.h"

namespace kvn_posix {
namespace {

// Socket descriptor to the event bound to it; guarded by KernelLock().
std::unordered_map<int, SocketEventObject*>& Bindings() {
    static auto* bindings = new std::unordered_map<int, SocketEventObject*>;
    return *bindings;
}

// Records what the socket has to tell, if the record is empty.
void Probe(SocketEventObject* e) {
    if (e->fd < 0 || e->endSeen || e->record != 0) return;
    char byte;
    ssize_t n = recv(e->fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n > 0 || (n == 0 && e->datagram)) {
        e->notConnected = false;
        if (e->mask & FD_READ) {
            e->record = FD_READ;
            e->signalled = true;
        }
        return;
    }
    int err = n == 0 ? 0 : errno;
    if (n < 0) {
        if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) {
            e->notConnected = false;
            return;
        }
        if (err == ENOTCONN) {
            e->notConnected = true;
            return;
        }
        // A datagram socket's error (an ICMP refusal) was consumed by the
        // peek and ends nothing.
        if (e->datagram) return;
    }
    // The stream ended: reported once, and the socket is not probed again.
    e->endSeen = true;
    if (e->mask & FD_CLOSE) {
        e->record = FD_CLOSE;
        e->closeError = WsaErrorFromErrno(err);
        e->signalled = true;
    }
}

int Fail(int wsaError) {
    KvnSetLastError(static_cast<DWORD>(wsaError));
    return -1;
}

bool IsOpenDescriptor(int fd) { return fcntl(fd, F_GETFD) != -1 || errno != EBADF; }

}  // namespace

bool SocketEventSignalled(SocketEventObject* event) {
    if (!event->signalled) Probe(event);
    return event->signalled;
}

int SocketEventPollFd(const SocketEventObject* e) {
    if (e->fd < 0 || e->endSeen || e->notConnected || e->record != 0 || e->signalled) return -1;
    return e->fd;
}

void UnbindSocketEvent(SocketEventObject* e) {
    if (e->fd < 0) return;
    auto it = Bindings().find(e->fd);
    if (it != Bindings().end() && it->second == e) Bindings().erase(it);
    e->fd = -1;
    e->mask = 0;
    // Waiters drop the descriptor from their poll sets.
    WakeWaiters(e);
}

void ForgetSocket(int fd) {
    std::lock_guard<std::mutex> guard(KernelLock());
    auto it = Bindings().find(fd);
    if (it != Bindings().end()) UnbindSocketEvent(it->second);
}

}  // namespace kvn_posix

using namespace kvn_posix;

WSAEVENT KvnCreateSocketEvent() {
    SocketEventObject* e = new (std::nothrow) SocketEventObject;
    if (!e) {
        KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(KernelLock());
    HANDLE h = PublishObject(e);
    if (!h) KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return h;
}

BOOL KvnCloseSocketEvent(WSAEVENT hEvent) { return KvnCloseHandle(hEvent); }

BOOL KvnResetSocketEvent(WSAEVENT hEvent) { return KvnResetEvent(hEvent); }

int KvnSocketEventSelect(SOCKET s, WSAEVENT hEvent, long events) {
    if (s > static_cast<SOCKET>(INT_MAX)) return Fail(WSAENOTSOCK);
    const int fd = static_cast<int>(s);
    const long supported = FD_READ | FD_CLOSE;
    if ((events & ~supported) != 0 || events == FD_CLOSE) return Fail(WSAEINVAL);

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

    std::lock_guard<std::mutex> guard(KernelLock());
    KernelObject* object = FindObject(hEvent);
    if (!object || object->kind != ObjectKind::SocketEvent) return Fail(WSAEINVAL);
    SocketEventObject* e = static_cast<SocketEventObject*>(object);

    // A new selection replaces the socket's previous one and clears the record.
    auto it = Bindings().find(fd);
    if (it != Bindings().end()) UnbindSocketEvent(it->second);
    UnbindSocketEvent(e);
    e->record = 0;
    e->closeError = 0;
    e->endSeen = false;
    e->notConnected = false;
    if (events == 0) return 0;
    try {
        Bindings()[fd] = e;
    } catch (...) {
        return Fail(10055);  // WSAENOBUFS
    }
    e->fd = fd;
    e->mask = events;
    e->datagram = datagram;
    // Threads already waiting on the event start watching the socket.
    WakeWaiters(e);
    return 0;
}

int KvnEnumNetworkEvents(SOCKET s, WSAEVENT hEvent, long* events, int* closeError) {
    if (s > static_cast<SOCKET>(INT_MAX)) return Fail(WSAENOTSOCK);
    const int fd = static_cast<int>(s);

    std::lock_guard<std::mutex> guard(KernelLock());
    KernelObject* reset = nullptr;
    if (hEvent) {
        reset = FindObject(hEvent);
        if (!reset || (reset->kind != ObjectKind::SocketEvent && reset->kind != ObjectKind::Event)) {
            return Fail(WSAEINVAL);
        }
    }
    long taken = 0;
    int error = 0;
    auto it = Bindings().find(fd);
    if (it != Bindings().end()) {
        SocketEventObject* bound = it->second;
        Probe(bound);
        taken = bound->record;
        error = bound->closeError;
        bound->record = 0;
        bound->closeError = 0;
    } else if (!IsOpenDescriptor(fd)) {
        return Fail(WSAENOTSOCK);
    }
    // As WSAEnumNetworkEvents, the event passed is reset, whichever socket it watches.
    if (reset && reset->kind == ObjectKind::SocketEvent) {
        static_cast<SocketEventObject*>(reset)->signalled = false;
    } else if (reset) {
        static_cast<EventObject*>(reset)->signalled = false;
    }
    if (events) *events = taken;
    if (closeError) *closeError = (taken & FD_CLOSE) ? error : 0;
    return 0;
}
