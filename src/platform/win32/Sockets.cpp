// Sockets on Windows: WinSock 2 itself. The interface was drawn after it, so
// most functions forward; the rest pick the arguments the library always
// uses (IPv4, default flags, one socket per select).
//
// Behaviours that belong to WinSock and that the POSIX backend does not share:
//  - a non-blocking connect that fails (refused, unreachable) is reported by
//    select in the exception set only, never as writable: KvnWaitWritable
//    then runs out its whole time limit;
//  - a socket event may report FD_READ and FD_CLOSE in the same set when the
//    peer's data and its close arrive before the events are enumerated;
//  - a datagram longer than the buffer given to KvnRecvFrom fills the buffer
//    and fails with WSAEMSGSIZE (POSIX returns the truncated length);
//  - nothing works before KvnSocketStartup (WSANOTINITIALISED).
#include "platform/Sockets.h"

#include <ws2tcpip.h>

#include <climits>
#include <cstring>

namespace {

sockaddr_in MakeAddress(DWORD address, unsigned short port) {
    sockaddr_in sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = address;
    sa.sin_port = htons(port);
    return sa;
}

// select on this one socket for reading or writing; the first argument of
// select is ignored by WinSock.
int WaitOne(SOCKET s, bool forWriting, DWORD timeoutMs) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(s, &set);
    timeval limit;
    limit.tv_sec = static_cast<long>(timeoutMs / 1000);
    limit.tv_usec = static_cast<long>((timeoutMs % 1000) * 1000);
    int r = select(0, forWriting ? nullptr : &set, forWriting ? &set : nullptr, nullptr,
                   timeoutMs == INFINITE ? nullptr : &limit);
    if (r == SOCKET_ERROR) return -1;
    return r > 0 ? 1 : 0;
}

// Closes a socket on a failure path without losing the error that caused it.
void CloseKeepingError(SOCKET s) {
    int error = WSAGetLastError();
    closesocket(s);
    WSASetLastError(error);
}

}  // namespace

int KvnSocketStartup(WORD version, WORD* granted) {
    WSADATA data;
    std::memset(&data, 0, sizeof data);
    int r = WSAStartup(version, &data);
    if (granted) *granted = data.wVersion;
    return r;
}

int KvnSocketCleanup() { return WSACleanup(); }

int KvnSocketError() { return WSAGetLastError(); }

std::string KvnSocketErrorText(int error) {
    char text[256] = {};
    const DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                   static_cast<DWORD>(error), 0, text, sizeof text, nullptr);
    std::string s(text, n);
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ' || s.back() == '.')) s.pop_back();
    return s.empty() ? "socket error " + std::to_string(error) : s;
}

DWORD KvnLoopbackAddress() { return htonl(INADDR_LOOPBACK); }

DWORD KvnInetAddr(const char* text) {
    if (!text) return INADDR_NONE;
    return inet_addr(text);
}

BOOL KvnResolveHost(const char* host, DWORD* address) {
    // An empty name is no host (some resolvers answer it with a local address).
    if (!host || !*host || !address) {
        WSASetLastError(WSAEINVAL);
        return FALSE;
    }
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    int r = getaddrinfo(host, nullptr, &hints, &list);
    if (r != 0 || !list) {
        // getaddrinfo's codes are WinSock error numbers (WSAHOST_NOT_FOUND ...).
        WSASetLastError(r != 0 ? r : WSAHOST_NOT_FOUND);
        return FALSE;
    }
    *address = reinterpret_cast<const sockaddr_in*>(list->ai_addr)->sin_addr.s_addr;
    freeaddrinfo(list);
    return TRUE;
}

unsigned short KvnHtons(unsigned short port) { return htons(port); }

SOCKET KvnTcpSocket() { return socket(AF_INET, SOCK_STREAM, IPPROTO_TCP); }

SOCKET KvnUdpSocket() { return socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP); }

int KvnCloseSocket(SOCKET s) {
    // WinSock itself cancels the socket's WSAEventSelect binding on close, and
    // fails the blocking calls other threads have in progress on it.
    return closesocket(s);
}

int KvnSetSocketOption(SOCKET s, KvnSocketOption option, int value) {
    int level = SOL_SOCKET;
    int name = 0;
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
    default:
        WSASetLastError(WSAENOPROTOOPT);
        return -1;
    }
    return setsockopt(s, level, name, reinterpret_cast<const char*>(&value), sizeof value);
}

int KvnBind(SOCKET s, DWORD address, unsigned short port) {
    sockaddr_in sa = MakeAddress(address, port);
    return bind(s, reinterpret_cast<const sockaddr*>(&sa), sizeof sa);
}

int KvnSetNonBlocking(SOCKET s, BOOL nonBlocking) {
    u_long mode = nonBlocking ? 1 : 0;
    return ioctlsocket(s, FIONBIO, &mode);
}

int KvnPendingBytes(SOCKET s) {
    u_long n = 0;
    if (ioctlsocket(s, FIONREAD, &n) != 0) return -1;
    return n > static_cast<u_long>(INT_MAX) ? INT_MAX : static_cast<int>(n);
}

int KvnConnect(SOCKET s, DWORD address, unsigned short port) {
    sockaddr_in sa = MakeAddress(address, port);
    return connect(s, reinterpret_cast<const sockaddr*>(&sa), sizeof sa);
}

int KvnGetPendingError(SOCKET s) {
    int error = 0;
    int length = sizeof error;
    if (getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &length) != 0)
        return WSAGetLastError();
    return error;
}

int KvnWaitWritable(SOCKET s, DWORD timeoutMs) { return WaitOne(s, true, timeoutMs); }

int KvnWaitReadable(SOCKET s, DWORD timeoutMs) { return WaitOne(s, false, timeoutMs); }

int KvnSend(SOCKET s, const char* data, int length) { return send(s, data, length, 0); }

int KvnRecv(SOCKET s, char* buffer, int length) { return recv(s, buffer, length, 0); }

int KvnRecvFrom(SOCKET s, char* buffer, int length) {
    return recvfrom(s, buffer, length, 0, nullptr, nullptr);
}

int KvnSendTo(SOCKET s, const char* data, int length, DWORD address, unsigned short port) {
    sockaddr_in sa = MakeAddress(address, port);
    return sendto(s, data, length, 0, reinterpret_cast<const sockaddr*>(&sa), sizeof sa);
}

SOCKET KvnTcpListen(DWORD address, unsigned short port, int backlog) {
    // No SO_REUSEADDR: on Windows it would let a second socket take over the
    // port, and Windows does not need it to listen again beside connections
    // still in TIME_WAIT.
    SOCKET s = KvnTcpSocket();
    if (s == INVALID_SOCKET) return INVALID_SOCKET;
    if (KvnBind(s, address, port) != 0 || listen(s, backlog) != 0) {
        CloseKeepingError(s);
        return INVALID_SOCKET;
    }
    return s;
}

unsigned short KvnGetLocalPort(SOCKET s) {
    sockaddr_in sa;
    std::memset(&sa, 0, sizeof sa);
    int length = sizeof sa;
    if (getsockname(s, reinterpret_cast<sockaddr*>(&sa), &length) != 0) return 0;
    return ntohs(sa.sin_port);
}

int KvnGetPeerAddress(SOCKET s, DWORD* address) {
    sockaddr_in sa;
    std::memset(&sa, 0, sizeof sa);
    int length = sizeof sa;
    if (getpeername(s, reinterpret_cast<sockaddr*>(&sa), &length) != 0 || sa.sin_family != AF_INET) return -1;
    *address = sa.sin_addr.s_addr;
    return 0;
}

SOCKET KvnAccept(SOCKET listening, DWORD timeoutMs) {
    int r = WaitOne(listening, false, timeoutMs);
    if (r != 1) {
        if (r == 0) WSASetLastError(WSAETIMEDOUT);
        return INVALID_SOCKET;
    }
    // The accepted socket inherits the listening socket's mode (and any
    // socket event bound to it), as WinSock does.
    return accept(listening, nullptr, nullptr);
}

int KvnShutdown(SOCKET s) { return shutdown(s, SD_BOTH); }

int KvnJoinMulticastGroup(SOCKET s, DWORD groupAddress) {
    ip_mreq request;
    std::memset(&request, 0, sizeof request);
    request.imr_multiaddr.s_addr = groupAddress;
    request.imr_interface.s_addr = htonl(INADDR_ANY);
    return setsockopt(s, IPPROTO_IP, IP_ADD_MEMBERSHIP, reinterpret_cast<const char*>(&request),
                      sizeof request);
}

WSAEVENT KvnCreateSocketEvent() {
    // Manual reset, not signalled; WSA_INVALID_EVENT is the null handle.
    return WSACreateEvent();
}

BOOL KvnCloseSocketEvent(WSAEVENT hEvent) { return WSACloseEvent(hEvent); }

BOOL KvnResetSocketEvent(WSAEVENT hEvent) { return WSAResetEvent(hEvent); }

int KvnSocketEventSelect(SOCKET s, WSAEVENT hEvent, long events) {
    return WSAEventSelect(s, hEvent, events) == 0 ? 0 : -1;
}

int KvnEnumNetworkEvents(SOCKET s, WSAEVENT hEvent, long* events, int* closeError) {
    WSANETWORKEVENTS recorded;
    std::memset(&recorded, 0, sizeof recorded);
    if (WSAEnumNetworkEvents(s, hEvent, &recorded) != 0) return -1;
    if (events) *events = recorded.lNetworkEvents;
    if (closeError)
        *closeError = (recorded.lNetworkEvents & FD_CLOSE) ? recorded.iErrorCode[FD_CLOSE_BIT] : 0;
    return 0;
}

// The system records network events for the socket itself and signals every
// event selected for it: a socket cannot be lent to one thread.
BOOL KvnLendSocketEvent(WSAEVENT) { return FALSE; }

void KvnReturnSocketEvent(WSAEVENT) {}

long KvnPeekNetworkEvents(WSAEVENT) { return 0; }
