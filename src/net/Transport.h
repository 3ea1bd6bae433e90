// TCP transport: connecting to the service with a bounded time, and moving an
// exact number of bytes within a time budget. Free functions without state of
// their own: any number of threads may use them at once on different sockets.
#ifndef KORVANE_NET_TRANSPORT_H
#define KORVANE_NET_TRANSPORT_H

#include <korvane/SockInit.h>
#include <korvane/platform/KvnTypes.h>

// Connects to host:port (low 16 bits) within timeoutMs (-1: blocking connect).
// The connected socket, or INVALID_SOCKET. errorText, when not null, receives
// the reason of some failures (room for about 60 characters plus the host).
SOCKET Socket_Client(const char* host, int port, int timeoutMs, char* errorText);

// Bytes moved: length when complete, fewer when the budget ran out, -1 on a
// socket error. The budget covers the whole transfer; 0xFFFFFFFF never runs out.
int SockSend(SOCKET sock, const char* data, int length, DWORD timeoutMs);
int SockReceive(SOCKET sock, char* buffer, int length, DWORD timeoutMs);
// The same, for bytes that cannot have arrived yet (the acknowledgement of
// what was just sent): it waits for them before its first read, which saves
// a read that would find nothing.
int SockReceiveReply(SOCKET sock, char* buffer, int length, DWORD timeoutMs);

// 1 when more than timeoutMs ms have passed since start (tick counts); when
// the counter has wrapped around, start is reset to now and the answer is 0.
int IsTimeOuted(DWORD& start, DWORD timeoutMs);

// Keeps the low byte of every character of src, terminator included. dst
// needs room for the whole text.
void WideToNarrow(char* dst, const wchar_t* src);

#endif
