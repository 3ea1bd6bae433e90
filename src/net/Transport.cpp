// TCP transport: starting the socket layer, connecting to the service with a
// bounded connect time, and moving an exact byte count within a time budget.
//
// Only bytes move here: what the bytes mean, acknowledgements and retries
// belong to the exchange above. Nothing is shared between calls; the log is
// the only side channel.
#include "net/Transport.h"

#include <cstdio>
#include <cstring>
#include <cwchar>

#include "diag/Log.h"
#include "platform/DebugOutput.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace {

// The socket layer version asked for and required: 2.2.
const WORD kSocketVersion = 0x0202;

// Socket options of every connection to the service. The receive buffer is
// 8195 bytes, not 8192: the service was tuned against exactly this value.
const int kReceiveBufferSize = 8195;
const int kSendBufferSize = 65535;

// The connect time-out that asks for a blocking connect.
const int kBlockingConnect = -1;

// A budget of this value never runs out (IsTimeOuted can never see more).
const DWORD kNoBudgetLimit = 0xFFFFFFFFu;

// Pause after a failed readiness wait, so that a socket the wait cannot
// watch is still polled rather than spun on.
const DWORD kRetryPauseMs = 2;

bool IsDottedAddress(const char* host) {
    for (const char* p = host; *p; ++p) {
        if (!((*p >= '0' && *p <= '9') || *p == '.')) return false;
    }
    return true;
}

// How long a transfer may wait for readiness before it looks at its budget
// again: until just past the end of the budget (IsTimeOuted wants more than
// timeoutMs), and never past the wrap-around of the tick counter, where
// IsTimeOuted restarts the budget.
DWORD WaitSlice(DWORD start, DWORD timeoutMs) {
    const DWORD now = KvnGetTickCount();
    unsigned long long slice;
    if (timeoutMs == kNoBudgetLimit) {
        slice = kNoBudgetLimit;
    } else if (now < start) {
        slice = 1;  // wrapped: IsTimeOuted restarts the budget at once
    } else {
        const DWORD elapsed = now - start;
        slice = elapsed > timeoutMs ? 1ull : static_cast<unsigned long long>(timeoutMs - elapsed) + 1;
    }
    const unsigned long long untilWrap = 0x100000000ull - now;
    if (slice > untilWrap) slice = untilWrap;
    if (slice >= INFINITE) slice = INFINITE - 1;  // always a bounded wait
    return static_cast<DWORD>(slice);
}

// The wait between two attempts of a transfer: until the socket is ready or
// the budget is over, whichever comes first. The outcome is that of polling
// every few milliseconds, without the polling.
void WaitReady(SOCKET sock, bool forWriting, DWORD start, DWORD timeoutMs) {
    const DWORD slice = WaitSlice(start, timeoutMs);
    const int r = forWriting ? KvnWaitWritable(sock, slice) : KvnWaitReadable(sock, slice);
    if (r < 0) KvnSleep(kRetryPauseMs);
}

}  // namespace

int SockInitWinSock() {
    WORD granted = 0;
    const int err = KvnSocketStartup(kSocketVersion, &granted);
    wchar_t text[128];
    if (err != 0) {
        std::swprintf(text, sizeof text / sizeof text[0],
                      L"\r\nWSAStartup Failed : err =  #%d        ", err);
        KvnDebugOutput(text);
        return 0;
    }
    if ((granted & 0xFF) != 2 || ((granted >> 8) & 0xFF) != 2) {
        std::swprintf(text, sizeof text / sizeof text[0],
                      L"\r\nWSAStartup Invalid version : (#%d)     ", static_cast<int>(granted));
        KvnDebugOutput(text);
        KvnSocketCleanup();
        return 0;
    }
    return 1;
}

int SockCloseWinSock() { return KvnSocketCleanup() == 0 ? 1 : 0; }

SOCKET Socket_Client(const char* host, int port, int timeoutMs, char* errorText) {
    if (!host || !*host || std::strcmp(host, "noaddress") == 0) return INVALID_SOCKET;

    // Only a text of digits and dots is taken as a dotted address; anything
    // else is a name to resolve.
    DWORD address;
    if (IsDottedAddress(host)) {
        address = KvnInetAddr(host);
        if (address == 0xFFFFFFFFu) {
            if (errorText) std::sprintf(errorText, "'inet_addr' function returned error; addr: %s", host);
            return INVALID_SOCKET;
        }
    } else if (!KvnResolveHost(host, &address)) {
        if (errorText) std::sprintf(errorText, "'gethostbyname' function returned error; addr: %s", host);
        return INVALID_SOCKET;
    }
    const unsigned short wirePort = static_cast<unsigned short>(port & 0xFFFF);

    SOCKET s = KvnTcpSocket();
    if (s == INVALID_SOCKET) {
        if (errorText) std::sprintf(errorText, "function 'socket' returned error: %i", KvnSocketError());
        return INVALID_SOCKET;
    }
    // Results ignored: a socket without one of them still works, only less well.
    KvnSetSocketOption(s, KVN_SO_REUSEADDR, 1);
    KvnSetSocketOption(s, KVN_SO_KEEPALIVE, 1);
    KvnSetSocketOption(s, KVN_SO_RCVBUF, kReceiveBufferSize);
    KvnSetSocketOption(s, KVN_SO_SNDBUF, kSendBufferSize);
    KvnSetSocketOption(s, KVN_TCP_NODELAY, 1);  // small messages must not wait for coalescing
    KvnBind(s, KVN_ADDR_ANY, 0);

    if (timeoutMs != kBlockingConnect) KvnSetNonBlocking(s, TRUE);
    bool refused = false;
    if (KvnConnect(s, address, wirePort) != 0) {
        const int error = KvnSocketError();
        // A non-blocking connect reports a refusal later, as a connection
        // that never completes; some socket layers already know it here
        // (loopback). Both end the same way, in the time-out.
        refused = timeoutMs != kBlockingConnect && error == WSAECONNREFUSED;
        if (error != WSAEWOULDBLOCK && !refused) {
            KvnCloseSocket(s);
            return INVALID_SOCKET;
        }
    }
    if (timeoutMs == kBlockingConnect) return s;

    // A negative limit is refused by the socket layer's select.
    int ready;
    int selectError = 0;
    if (refused) {
        ready = 0;
    } else if (timeoutMs < 0) {
        ready = -1;
        selectError = WSAEINVAL;
    } else {
        ready = KvnWaitWritable(s, static_cast<DWORD>(timeoutMs));
        if (ready < 0) selectError = KvnSocketError();
    }
    // Writable means connected, except where the socket layer also marks a
    // refused connection writable: a pending error is then a connection
    // that never came, reported as the time-out it ends in elsewhere.
    if (ready == 1 && KvnGetPendingError(s) == 0) return s;
    if (errorText) {
        if (ready < 0) {
            std::sprintf(errorText, "Socket_Client (%s,%i);  select error: %i", host,
                         static_cast<int>(wirePort), selectError);
        } else {
            std::sprintf(errorText, "Socket_Client (%s,%i);  connection timeout", host,
                         static_cast<int>(wirePort));
        }
    }
    KvnCloseSocket(s);
    return INVALID_SOCKET;
}

int SockSend(SOCKET sock, const char* data, int length, DWORD timeoutMs) {
    if (length == 0) return 0;
    if (length < 0 || !data) return -1;
    DWORD start = KvnGetTickCount();
    int sent = 0;
    for (;;) {
        const int r = KvnSend(sock, data + sent, length - sent);
        if (r < 0) {
            const int error = KvnSocketError();
            if (error != WSAEWOULDBLOCK) {
                if (g_logLevel.load(std::memory_order_relaxed) >= 5) {
                    WriteLogF(5, L"SockSend Failed code : %d; nB Boucle %d,", error, sent);
                }
                return -1;
            }
        } else {
            sent += r;
            if (sent == length) return sent;
        }
        WriteLog(L"SockSend, emission partielle", 5);
        WaitReady(sock, true, start, timeoutMs);
        if (IsTimeOuted(start, timeoutMs)) return sent;
    }
}

namespace {

// waitFirst: the bytes cannot be there yet (the answer to what was just sent),
// so the first read waits for them rather than finding nothing.
int Receive(SOCKET sock, char* buffer, int length, DWORD timeoutMs, bool waitFirst) {
    if (length == 0) return 0;
    if (length < 0 || !buffer) return -1;
    DWORD start = KvnGetTickCount();
    int received = 0;
    if (waitFirst) WaitReady(sock, false, start, timeoutMs);
    for (;;) {
        const int r = KvnRecv(sock, buffer + received, length - received);
        if (r < 0) {
            const int error = KvnSocketError();
            if (error != WSAEWOULDBLOCK) {
                if (g_logLevel.load(std::memory_order_relaxed) >= 5) {
                    WriteLogF(5, L"SockReceive Failed code : %d, Pos %d", error, received);
                }
                return -1;
            }
            WaitReady(sock, false, start, timeoutMs);
        } else if (r == 0) {
            // The peer closed: the socket stays readable and nothing more
            // will come, so waiting for readiness would spin. Sit out the
            // budget instead; the count so far is the answer.
            KvnSleep(WaitSlice(start, timeoutMs));
        } else {
            // More may be there already (a large message comes in pieces of
            // the receive window): read again, and wait only on would-block.
            received += r;
            if (received == length) return received;
        }
        if (IsTimeOuted(start, timeoutMs)) return received;
    }
}

}  // namespace

int SockReceive(SOCKET sock, char* buffer, int length, DWORD timeoutMs) {
    return Receive(sock, buffer, length, timeoutMs, false);
}

int SockReceiveReply(SOCKET sock, char* buffer, int length, DWORD timeoutMs) {
    return Receive(sock, buffer, length, timeoutMs, true);
}

int IsTimeOuted(DWORD& start, DWORD timeoutMs) {
    const DWORD now = KvnGetTickCount();
    if (now < start) {
        // The tick counter wrapped around: the budget starts again.
        start = KvnGetTickCount();
        return 0;
    }
    return (now - start) > timeoutMs ? 1 : 0;
}

void WideToNarrow(char* dst, const wchar_t* src) {
    if (!dst) return;
    if (!src) {
        *dst = '\0';
        return;
    }
    do {
        *dst++ = static_cast<char>(static_cast<unsigned long>(*src) & 0xFFu);
    } while (*src++);
}
