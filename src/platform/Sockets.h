// Sockets: TCP and UDP over IPv4, and socket events.
//
// Results follow the Windows Sockets conventions on both backends: functions
// that fail return -1 (or INVALID_SOCKET) and KvnSocketError() then holds a
// Windows Sockets error number (the POSIX backend translates errno).
//
// A socket event is an event bound to a socket for FD_READ and FD_CLOSE, as
// WSAEventSelect binds one: it becomes signalled when the socket has data to
// read or when the peer closed the connection, it stays signalled until
// KvnEnumNetworkEvents or KvnResetSocketEvent, and it is waited on with the
// functions of Kernel.h. The peer's close is reported once, and only once the
// data sent before it has been read; data and close are therefore never
// reported in the same set by the POSIX backend. Binding a socket to an event
// makes the socket non-blocking.
#ifndef KORVANE_PLATFORM_SOCKETS_H
#define KORVANE_PLATFORM_SOCKETS_H

#include <string>

#include <korvane/platform/KvnTypes.h>

#if !defined(_WIN32)
typedef HANDLE WSAEVENT;
#define FD_READ 0x01
#define FD_WRITE 0x02
#define FD_CLOSE 0x20
#define WSAEINTR 10004
#define WSAEBADF 10009
#define WSAEINVAL 10022
#define WSAEWOULDBLOCK 10035
#define WSAEINPROGRESS 10036
#define WSAENOTSOCK 10038
#define WSAEADDRINUSE 10048
#define WSAENETDOWN 10050
#define WSAENETUNREACH 10051
#define WSAECONNABORTED 10053
#define WSAECONNRESET 10054
#define WSAENOTCONN 10057
#define WSAESHUTDOWN 10058
#define WSAETIMEDOUT 10060
#define WSAECONNREFUSED 10061
#define WSAEHOSTUNREACH 10065
#define WSANOTINITIALISED 10093
#define WSAHOST_NOT_FOUND 11001
#endif

// Starts the socket layer asking for `version` (0x0202 for 2.2): 0 or an
// error number; *granted receives the version the layer granted.
int KvnSocketStartup(WORD version, WORD* granted);
// 0 on success.
int KvnSocketCleanup();
int KvnSocketError();
// The system's own text for a number that KvnSocketError() returned
// ("Address already in use"), for messages that people read.
std::string KvnSocketErrorText(int error);

// 0.0.0.0 and 127.0.0.1 in network byte order, for the functions below.
#define KVN_ADDR_ANY 0x00000000u
DWORD KvnLoopbackAddress();

// Dotted IPv4 text to an address in network byte order; 0xFFFFFFFF
// (INADDR_NONE) when it is not one (as inet_addr, "255.255.255.255" included).
DWORD KvnInetAddr(const char* text);
// Resolves a host name to its first IPv4 address (network byte order).
BOOL KvnResolveHost(const char* host, DWORD* address);
// Network byte order of a 16-bit port.
unsigned short KvnHtons(unsigned short port);

// A socket counts as open when it is neither 0 nor INVALID_SOCKET.
inline bool KvnIsSocketOpen(SOCKET s) { return s != 0 && s != INVALID_SOCKET; }

SOCKET KvnTcpSocket();
SOCKET KvnUdpSocket();
// Closes the socket and unbinds any socket event from it. A thread blocked
// on the socket in this layer is woken (on POSIX the connection is shut down
// before the descriptor is released).
int KvnCloseSocket(SOCKET s);

enum KvnSocketOption {
    KVN_SO_REUSEADDR,
    KVN_SO_KEEPALIVE,
    KVN_SO_RCVBUF,
    KVN_SO_SNDBUF,
    KVN_SO_BROADCAST,
    KVN_TCP_NODELAY
};
int KvnSetSocketOption(SOCKET s, KvnSocketOption option, int value);

// Binds to the given address and port (0 lets the system choose).
int KvnBind(SOCKET s, DWORD address, unsigned short port);
int KvnSetNonBlocking(SOCKET s, BOOL nonBlocking);
// The bytes that can be read at once (FIONREAD); -1 on error.
int KvnPendingBytes(SOCKET s);
// 0 when connected; -1 otherwise, with KvnSocketError() == WSAEWOULDBLOCK when
// a non-blocking connect is under way.
int KvnConnect(SOCKET s, DWORD address, unsigned short port);
// The socket's pending error (SO_ERROR): 0 when none.
int KvnGetPendingError(SOCKET s);
// 1 when the socket becomes writable (or readable) within timeoutMs, 0 on
// time-out, -1 on error. INFINITE waits without limit.
int KvnWaitWritable(SOCKET s, DWORD timeoutMs);
int KvnWaitReadable(SOCKET s, DWORD timeoutMs);

// One send or receive call; never raises a signal. -1 on error (with
// WSAEWOULDBLOCK when a non-blocking socket cannot move data now); recv
// returns 0 when the peer has closed the connection.
int KvnSend(SOCKET s, const char* data, int length);
int KvnRecv(SOCKET s, char* buffer, int length);
int KvnRecvFrom(SOCKET s, char* buffer, int length);
int KvnSendTo(SOCKET s, const char* data, int length, DWORD address, unsigned short port);

// Listening sockets, for the service side (tools and tests).
SOCKET KvnTcpListen(DWORD address, unsigned short port, int backlog);
// The local port of a bound socket, 0 on failure.
unsigned short KvnGetLocalPort(SOCKET s);
// The IPv4 address (network byte order) of a connected socket's peer: 0, or
// -1 when the socket has none.
int KvnGetPeerAddress(SOCKET s, DWORD* address);
// Waits up to timeoutMs for a connection; INVALID_SOCKET on time-out or error.
SOCKET KvnAccept(SOCKET listening, DWORD timeoutMs);
// Shuts down both directions without closing.
int KvnShutdown(SOCKET s);

// Joins an IPv4 multicast group on any interface.
int KvnJoinMulticastGroup(SOCKET s, DWORD groupAddress);

// Socket events (WSACreateEvent, WSAEventSelect, WSAEnumNetworkEvents).
// A socket event is manual reset and starts not signalled; null on failure.
WSAEVENT KvnCreateSocketEvent();
BOOL KvnCloseSocketEvent(WSAEVENT hEvent);
BOOL KvnResetSocketEvent(WSAEVENT hEvent);
// Binds `events` (FD_READ | FD_CLOSE) of socket s to hEvent: 0 or -1.
int KvnSocketEventSelect(SOCKET s, WSAEVENT hEvent, long events);
// Takes the network events recorded for s since the last call and resets
// hEvent: 0 or -1. *closeError receives the error code reported with FD_CLOSE
// (0 for a graceful close).
int KvnEnumNetworkEvents(SOCKET s, WSAEVENT hEvent, long* events, int* closeError);

// Lending a socket to one thread for a moment: while lent, only the calling
// thread is told of the socket's network events through hEvent (the other
// threads waiting on it are not woken by them, nor disturbed); on its return
// they are again, and one that was recorded meanwhile and not taken wakes
// them. FALSE when the socket cannot be lent: the Win32 backend, where the
// system records network events for the socket itself, never lends.
BOOL KvnLendSocketEvent(WSAEVENT hEvent);
void KvnReturnSocketEvent(WSAEVENT hEvent);
// The network events recorded for hEvent's socket (looking at the socket if
// none is), without taking them.
long KvnPeekNetworkEvents(WSAEVENT hEvent);

#endif
