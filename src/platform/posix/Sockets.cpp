// Sockets on POSIX: BSD sockets over IPv4 with Windows Sockets results.
//
// Every failure returns -1 (or INVALID_SOCKET) and leaves a Windows Sockets
// error number as the thread's last error, which KvnSocketError() reads, as
// WSAGetLastError() reads GetLastError()'s slot on Windows. The translation
// from errno is in WsaErrorFromErrno below. Socket events are in
// SocketEvents.cpp.
//
// Where this differs from Windows:
//  - there is no socket layer to start: KvnSocketStartup grants the version
//    asked and KvnSocketCleanup does nothing;
//  - a SOCKET is the descriptor; the library takes 0 for "no socket", so a
//    new socket never gets a descriptor from 0 to 2 (it is moved above);
//  - sends never raise SIGPIPE; sending on a connection the peer has reset or
//    that was shut down locally gives WSAECONNRESET alike (POSIX reports
//    both as EPIPE);
//  - KvnCloseSocket shuts the connection down before it releases the
//    descriptor, so that threads blocked on it return (recv gives 0, a
//    datagram socket included) instead of waiting on a descriptor that no
//    longer exists;
//  - a listening socket is non-blocking (KvnAccept waits with poll), and
//    accepted sockets are blocking whatever the listening socket's mode;
//  - a refused non-blocking connect makes the socket writable, with the
//    refusal as its pending error (Windows reports it in the exception set).
#include "platform/Sockets.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include "platform/Kernel.h"
#include "platform/posix/PosixInternal.h"

namespace {

// Windows Sockets numbers that Sockets.h does not name, for the translation.
const int kWsaEAccess = 10013;
const int kWsaEFault = 10014;
const int kWsaEMFile = 10024;
const int kWsaEAlready = 10037;
const int kWsaEMsgSize = 10040;
const int kWsaENoProtoOpt = 10042;
const int kWsaEOpNotSupp = 10045;
const int kWsaEAfNoSupport = 10047;
const int kWsaEAddrNotAvail = 10049;
const int kWsaENetReset = 10052;
const int kWsaENoBufs = 10055;
const int kWsaEIsConn = 10056;
const int kWsaEHostDown = 10064;

#if defined(MSG_NOSIGNAL)
const int kSendFlags = MSG_NOSIGNAL;
#else
const int kSendFlags = 0;  // SO_NOSIGPIPE is set on every socket instead
#endif

int Fail(int wsaError) {
    KvnSetLastError(static_cast<DWORD>(wsaError));
    return -1;
}

int FailErrno() { return Fail(kvn_posix::WsaErrorFromErrno(errno)); }

// The descriptor behind a SOCKET; false (and WSAENOTSOCK) for INVALID_SOCKET
// and other values no descriptor can have.
bool ToFd(SOCKET s, int& fd) {
    if (s > static_cast<SOCKET>(INT_MAX)) {
        Fail(WSAENOTSOCK);
        return false;
    }
    fd = static_cast<int>(s);
    return true;
}

// Moves a new descriptor above the standard streams: the library reads 0 as
// "no socket", and a socket on 1 or 2 would receive stray console output.
int KeepAboveStandardStreams(int fd) {
    if (fd < 0 || fd > 2) return fd;
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    int saved = errno;
    close(fd);
    errno = saved;
    return moved;
}

// Takes a fresh descriptor into the layer's conventions.
SOCKET Adopt(int fd) {
    fd = KeepAboveStandardStreams(fd);
    if (fd < 0) {
        FailErrno();
        return INVALID_SOCKET;
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
#if !defined(MSG_NOSIGNAL) && defined(SO_NOSIGPIPE)
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
    return static_cast<SOCKET>(fd);
}

SOCKET NewSocket(int type) {
#if defined(SOCK_CLOEXEC)
    type |= SOCK_CLOEXEC;
#endif
    int fd = socket(AF_INET, type, 0);
    if (fd < 0) {
        FailErrno();
        return INVALID_SOCKET;
    }
    return Adopt(fd);
}

sockaddr_in MakeAddress(DWORD address, unsigned short port) {
    sockaddr_in sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = address;
    sa.sin_port = htons(port);
    return sa;
}

// Polls one descriptor for `events` up to timeoutMs (INFINITE: no limit),
// resuming after signals with the time left. 1 ready, 0 time-out, -1 error.
int PollOne(SOCKET s, short events, DWORD timeoutMs) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int waitMs = -1;
        if (timeoutMs != INFINITE) {
            auto left = std::chrono::duration_cast<std::chrono::microseconds>(
                            deadline - std::chrono::steady_clock::now())
                            .count();
            if (left < 0) left = 0;
            long long ms = (left + 999) / 1000;
            waitMs = ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
        }
        pollfd pfd = {fd, events, 0};
        int r = poll(&pfd, 1, waitMs);
        if (r > 0) {
            if (pfd.revents & POLLNVAL) return Fail(WSAENOTSOCK);
            return 1;
        }
        if (r == 0) {
            if (waitMs == 0 || std::chrono::steady_clock::now() >= deadline) return 0;
            continue;  // woke a little early: wait for the rest
        }
        if (errno != EINTR) return FailErrno();
    }
}

}  // namespace

namespace kvn_posix {

int WsaErrorFromErrno(int err) {
    switch (err) {
    case 0: return 0;
    case EINTR: return WSAEINTR;
    case EBADF:
    case ENOTSOCK: return WSAENOTSOCK;
    case EACCES:
    case EPERM: return kWsaEAccess;
    case EFAULT: return kWsaEFault;
    case EINVAL: return WSAEINVAL;
    case EMFILE:
    case ENFILE: return kWsaEMFile;
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    case EAGAIN:
    // A non-blocking connect under way is "would block" on Windows.
    case EINPROGRESS: return WSAEWOULDBLOCK;
    case EALREADY: return kWsaEAlready;
    case EMSGSIZE: return kWsaEMsgSize;
    case ENOPROTOOPT: return kWsaENoProtoOpt;
    case EOPNOTSUPP: return kWsaEOpNotSupp;
    case EAFNOSUPPORT: return kWsaEAfNoSupport;
    case EADDRINUSE: return WSAEADDRINUSE;
    case EADDRNOTAVAIL: return kWsaEAddrNotAvail;
    case ENETDOWN: return WSAENETDOWN;
    case ENETUNREACH: return WSAENETUNREACH;
    case ENETRESET: return kWsaENetReset;
    case ECONNABORTED: return WSAECONNABORTED;
    case ECONNRESET:
    // Sending on a connection that can no longer carry data; on Windows the
    // peer's reset gives WSAECONNRESET.
    case EPIPE: return WSAECONNRESET;
    case ENOBUFS:
    case ENOMEM: return kWsaENoBufs;
    case EISCONN: return kWsaEIsConn;
    case ENOTCONN: return WSAENOTCONN;
    case ESHUTDOWN: return WSAESHUTDOWN;
    case ETIMEDOUT: return WSAETIMEDOUT;
    case ECONNREFUSED: return WSAECONNREFUSED;
    case EHOSTDOWN: return kWsaEHostDown;
    case EHOSTUNREACH: return WSAEHOSTUNREACH;
    default: return WSAEINVAL;
    }
}

}  // namespace kvn_posix

int KvnSocketStartup(WORD version, WORD* granted) {
    if (granted) *granted = version;
    return 0;
}

int KvnSocketCleanup() { return 0; }

int KvnSocketError() { return static_cast<int>(KvnGetLastError()); }

std::string KvnSocketErrorText(int error) {
    // Back from the Windows Sockets number to the errno it stands for, where
    // several share one number the one that the usual failure gives.
    static const struct {
        int wsa;
        int err;
    } kErrnos[] = {
        {WSAEINTR, EINTR}, {WSAENOTSOCK, ENOTSOCK}, {kWsaEAccess, EACCES}, {kWsaEFault, EFAULT},
        {WSAEINVAL, EINVAL}, {kWsaEMFile, EMFILE}, {WSAEWOULDBLOCK, EWOULDBLOCK}, {kWsaEAlready, EALREADY},
        {kWsaEMsgSize, EMSGSIZE}, {kWsaENoProtoOpt, ENOPROTOOPT}, {kWsaEOpNotSupp, EOPNOTSUPP},
        {kWsaEAfNoSupport, EAFNOSUPPORT}, {WSAEADDRINUSE, EADDRINUSE}, {kWsaEAddrNotAvail, EADDRNOTAVAIL},
        {WSAENETDOWN, ENETDOWN}, {WSAENETUNREACH, ENETUNREACH}, {kWsaENetReset, ENETRESET},
        {WSAECONNABORTED, ECONNABORTED}, {WSAECONNRESET, ECONNRESET}, {kWsaENoBufs, ENOBUFS},
        {kWsaEIsConn, EISCONN}, {WSAENOTCONN, ENOTCONN}, {WSAESHUTDOWN, ESHUTDOWN}, {WSAETIMEDOUT, ETIMEDOUT},
        {WSAECONNREFUSED, ECONNREFUSED}, {kWsaEHostDown, EHOSTDOWN}, {WSAEHOSTUNREACH, EHOSTUNREACH},
    };
    for (const auto& e : kErrnos) {
        if (e.wsa == error) return std::strerror(e.err);
    }
    return "socket error " + std::to_string(error);
}

DWORD KvnLoopbackAddress() { return htonl(INADDR_LOOPBACK); }

DWORD KvnInetAddr(const char* text) {
    if (!text) return 0xFFFFFFFFu;
    return static_cast<DWORD>(inet_addr(text));
}

BOOL KvnResolveHost(const char* host, DWORD* address) {
    if (!host || !*host || !address) {
        Fail(WSAHOST_NOT_FOUND);
        return FALSE;
    }
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    addrinfo* list = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &list) != 0 || !list) {
        Fail(WSAHOST_NOT_FOUND);
        return FALSE;
    }
    BOOL found = FALSE;
    for (addrinfo* ai = list; ai; ai = ai->ai_next) {
        if (ai->ai_family == AF_INET && ai->ai_addr) {
            *address = reinterpret_cast<sockaddr_in*>(ai->ai_addr)->sin_addr.s_addr;
            found = TRUE;
            break;
        }
    }
    freeaddrinfo(list);
    if (!found) Fail(WSAHOST_NOT_FOUND);
    return found;
}

unsigned short KvnHtons(unsigned short port) { return htons(port); }

SOCKET KvnTcpSocket() { return NewSocket(SOCK_STREAM); }

SOCKET KvnUdpSocket() { return NewSocket(SOCK_DGRAM); }

int KvnCloseSocket(SOCKET s) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    // Unbinding first wakes any thread waiting on the socket's event, so that
    // it drops the descriptor from its poll set before the number is reused.
    kvn_posix::ForgetSocket(fd);
    // Shutting down wakes threads blocked in poll or recv on the socket (a
    // descriptor closed under them would keep the connection open until they
    // return) and lets the peer see the end at once; it fails harmlessly on
    // sockets that are not connected. With unread data, only the receiving
    // side is shut: the close then resets the connection, as on Windows,
    // where sending our end first would have made it an orderly close.
    int unread = 0;
    shutdown(fd, (ioctl(fd, FIONREAD, &unread) == 0 && unread > 0) ? SHUT_RD : SHUT_RDWR);
    if (close(fd) != 0 && errno != EINTR) return FailErrno();
    return 0;
}

int KvnSetSocketOption(SOCKET s, KvnSocketOption option, int value) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    int level = SOL_SOCKET;
    int name;
    switch (option) {
    case KVN_SO_REUSEADDR: name = SO_REUSEADDR; break;
    case KVN_SO_KEEPALIVE: name = SO_KEEPALIVE; break;
    case KVN_SO_RCVBUF: name = SO_RCVBUF; break;
    case KVN_SO_SNDBUF: name = SO_SNDBUF; break;
    case KVN_SO_BROADCAST: name = SO_BROADCAST; break;
    case KVN_TCP_NODELAY:
        level = IPPROTO_TCP;
        name = TCP_NODELAY;
        break;
    default: return Fail(kWsaENoProtoOpt);
    }
    if (setsockopt(fd, level, name, &value, sizeof value) != 0) return FailErrno();
    return 0;
}

int KvnBind(SOCKET s, DWORD address, unsigned short port) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    sockaddr_in sa = MakeAddress(address, port);
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) return FailErrno();
    return 0;
}

int KvnSetNonBlocking(SOCKET s, BOOL nonBlocking) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return FailErrno();
    flags = nonBlocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    if (fcntl(fd, F_SETFL, flags) != 0) return FailErrno();
    return 0;
}

int KvnPendingBytes(SOCKET s) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    int n = 0;
    if (ioctl(fd, FIONREAD, &n) != 0) return FailErrno();
    return n;
}

int KvnConnect(SOCKET s, DWORD address, unsigned short port) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    sockaddr_in sa = MakeAddress(address, port);
    if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) return 0;
    if (errno != EINTR) return FailErrno();
    // Interrupted: the connection goes on by itself. A blocking socket waits
    // for its outcome, as a blocking connect does on Windows.
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0 && (flags & O_NONBLOCK)) return Fail(WSAEWOULDBLOCK);
    if (PollOne(s, POLLOUT, INFINITE) < 0) return -1;
    int pending = KvnGetPendingError(s);
    return pending == 0 ? 0 : Fail(pending);
}

int KvnGetPendingError(SOCKET s) {
    int fd;
    if (!ToFd(s, fd)) return WSAENOTSOCK;
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
        return kvn_posix::WsaErrorFromErrno(errno);
    }
    return kvn_posix::WsaErrorFromErrno(error);
}

int KvnWaitWritable(SOCKET s, DWORD timeoutMs) { return PollOne(s, POLLOUT, timeoutMs); }

int KvnWaitReadable(SOCKET s, DWORD timeoutMs) { return PollOne(s, POLLIN, timeoutMs); }

int KvnSend(SOCKET s, const char* data, int length) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    if (length < 0 || (!data && length > 0)) return Fail(kWsaEFault);
    for (;;) {
        ssize_t n = send(fd, data, static_cast<size_t>(length), kSendFlags);
        if (n >= 0) return static_cast<int>(n);
        if (errno != EINTR) return FailErrno();
    }
}

int KvnRecv(SOCKET s, char* buffer, int length) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    if (length < 0 || (!buffer && length > 0)) return Fail(kWsaEFault);
    for (;;) {
        ssize_t n = recv(fd, buffer, static_cast<size_t>(length), 0);
        if (n >= 0) return static_cast<int>(n);
        if (errno != EINTR) return FailErrno();
    }
}

int KvnRecvFrom(SOCKET s, char* buffer, int length) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    if (length < 0 || (!buffer && length > 0)) return Fail(kWsaEFault);
    for (;;) {
        ssize_t n = recvfrom(fd, buffer, static_cast<size_t>(length), 0, nullptr, nullptr);
        if (n >= 0) return static_cast<int>(n);
        if (errno != EINTR) return FailErrno();
    }
}

int KvnSendTo(SOCKET s, const char* data, int length, DWORD address, unsigned short port) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    if (length < 0 || (!data && length > 0)) return Fail(kWsaEFault);
    sockaddr_in sa = MakeAddress(address, port);
    for (;;) {
        ssize_t n = sendto(fd, data, static_cast<size_t>(length), kSendFlags,
                           reinterpret_cast<sockaddr*>(&sa), sizeof sa);
        if (n >= 0) return static_cast<int>(n);
        if (errno != EINTR) return FailErrno();
    }
}

SOCKET KvnTcpListen(DWORD address, unsigned short port, int backlog) {
    SOCKET s = KvnTcpSocket();
    if (s == INVALID_SOCKET) return INVALID_SOCKET;
    int fd = static_cast<int>(s);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in sa = MakeAddress(address, port);
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        listen(fd, backlog > 0 ? backlog : SOMAXCONN) != 0 ||
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) != 0) {
        int saved = errno;
        close(fd);
        Fail(kvn_posix::WsaErrorFromErrno(saved));
        return INVALID_SOCKET;
    }
    return s;
}

unsigned short KvnGetLocalPort(SOCKET s) {
    int fd;
    if (!ToFd(s, fd)) return 0;
    sockaddr_in sa;
    socklen_t length = sizeof sa;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &length) != 0) {
        FailErrno();
        return 0;
    }
    if (sa.sin_family != AF_INET) return 0;
    return ntohs(sa.sin_port);
}

int KvnGetPeerAddress(SOCKET s, DWORD* address) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    sockaddr_in sa;
    socklen_t length = sizeof sa;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&sa), &length) != 0) return FailErrno();
    if (sa.sin_family != AF_INET) return Fail(WSAEINVAL);
    *address = sa.sin_addr.s_addr;
    return 0;
}

SOCKET KvnAccept(SOCKET listening, DWORD timeoutMs) {
    int fd;
    if (!ToFd(listening, fd)) return INVALID_SOCKET;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        DWORD left = timeoutMs;
        if (timeoutMs != INFINITE) {
            auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
            left = ms > 0 ? static_cast<DWORD>(ms) : 0;
        }
        int ready = PollOne(listening, POLLIN, left);
        if (ready < 0) return INVALID_SOCKET;
        if (ready == 0) {
            Fail(WSAETIMEDOUT);
            return INVALID_SOCKET;
        }
#if defined(__linux__)
        int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
#else
        int client = accept(fd, nullptr, nullptr);
#endif
        if (client >= 0) {
            // Blocking, whatever the listening socket's mode (BSD systems
            // would pass O_NONBLOCK on).
            fcntl(client, F_SETFL, fcntl(client, F_GETFL) & ~O_NONBLOCK);
            return Adopt(client);
        }
        // The connection may have gone between poll and accept: wait again.
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ECONNABORTED && errno != EINTR) {
            FailErrno();
            return INVALID_SOCKET;
        }
    }
}

int KvnShutdown(SOCKET s) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    if (shutdown(fd, SHUT_RDWR) != 0) return FailErrno();
    return 0;
}

int KvnJoinMulticastGroup(SOCKET s, DWORD groupAddress) {
    int fd;
    if (!ToFd(s, fd)) return -1;
    ip_mreq request;
    std::memset(&request, 0, sizeof request);
    request.imr_multiaddr.s_addr = groupAddress;
    request.imr_interface.s_addr = htonl(INADDR_ANY);
    if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) != 0) {
        return FailErrno();
    }
    return 0;
}
