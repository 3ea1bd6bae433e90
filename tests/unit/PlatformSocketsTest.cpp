// Sockets of the platform layer on loopback: connecting, accepting and moving
// bytes, refusals and resets in Windows Sockets terms, and socket events as
// the connection threads use them (FD_READ while data waits, then FD_CLOSE
// once, after the data before it was read).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/TestUtil.h"
#include "platform/Kernel.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace {

using kvntest::Clock;
using kvntest::MsSince;

bool IsOpen(SOCKET s) { return s != 0 && s != INVALID_SOCKET; }

// A connected pair on loopback; closes what is still open at the end.
struct Link {
    SOCKET client = INVALID_SOCKET;
    SOCKET server = INVALID_SOCKET;

    Link() {
        SOCKET listening = KvnTcpListen(KvnLoopbackAddress(), 0, 4);
        if (listening == INVALID_SOCKET) return;
        client = KvnTcpSocket();
        if (KvnConnect(client, KvnLoopbackAddress(), KvnGetLocalPort(listening)) == 0) {
            server = KvnAccept(listening, 2000);
        }
        KvnCloseSocket(listening);
    }
    ~Link() {
        CloseClient();
        CloseServer();
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    bool Up() const { return IsOpen(client) && IsOpen(server); }
    void CloseClient() {
        if (IsOpen(client)) KvnCloseSocket(client);
        client = INVALID_SOCKET;
    }
    void CloseServer() {
        if (IsOpen(server)) KvnCloseSocket(server);
        server = INVALID_SOCKET;
    }
};

// A port on which nothing listens any more.
unsigned short ClosedPort() {
    SOCKET listening = KvnTcpListen(KvnLoopbackAddress(), 0, 1);
    unsigned short port = KvnGetLocalPort(listening);
    KvnCloseSocket(listening);
    return port;
}

// Reads everything the socket has now (it must be non-blocking).
std::string ReadAvailable(SOCKET s) {
    std::string text;
    char buffer[256];
    int n;
    while ((n = KvnRecv(s, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
    return text;
}

struct SocketEvent {
    WSAEVENT h = KvnCreateSocketEvent();
    ~SocketEvent() {
        if (KvnIsHandleOpen(h)) KvnCloseSocketEvent(h);
    }
    SocketEvent() = default;
    SocketEvent(const SocketEvent&) = delete;
    SocketEvent& operator=(const SocketEvent&) = delete;
};

struct NetworkEvents {
    long events = -1;
    int closeError = -1;
};

NetworkEvents Enumerate(SOCKET s, WSAEVENT e) {
    NetworkEvents n;
    EXPECT_EQ(KvnEnumNetworkEvents(s, e, &n.events, &n.closeError), 0);
    return n;
}

class PlatformSockets : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        WORD granted = 0;
        ASSERT_EQ(KvnSocketStartup(0x0202, &granted), 0);
        ASSERT_EQ(granted, 0x0202);
    }
    static void TearDownTestSuite() { KvnSocketCleanup(); }
};

// ---- Connections -------------------------------------------------------------------

TEST_F(PlatformSockets, AConnectionOnLoopbackCarriesBytesBothWaysAndEndsInZero) {
    Link link;
    ASSERT_TRUE(link.Up());
    EXPECT_EQ(KvnSetSocketOption(link.client, KVN_TCP_NODELAY, 1), 0);

    ASSERT_EQ(KvnSend(link.client, "hello", 5), 5);
    char buffer[16] = {};
    ASSERT_EQ(KvnWaitReadable(link.server, 2000), 1);
    int got = 0;
    while (got < 5) {
        int n = KvnRecv(link.server, buffer + got, 5 - got);
        ASSERT_GT(n, 0);
        got += n;
    }
    EXPECT_EQ(std::string(buffer, 5), "hello");
    EXPECT_EQ(KvnSend(link.server, "ok", 2), 2);
    EXPECT_EQ(KvnWaitReadable(link.client, 2000), 1);
    EXPECT_EQ(KvnRecv(link.client, buffer, sizeof buffer), 2);

    link.CloseClient();
    EXPECT_EQ(KvnWaitReadable(link.server, 2000), 1);
    EXPECT_EQ(KvnRecv(link.server, buffer, sizeof buffer), 0);
}

TEST_F(PlatformSockets, AcceptGivesUpAfterItsTimeOut) {
    SOCKET listening = KvnTcpListen(KvnLoopbackAddress(), 0, 1);
    ASSERT_NE(listening, INVALID_SOCKET);
    EXPECT_NE(KvnGetLocalPort(listening), 0);
    const auto start = Clock::now();
    EXPECT_EQ(KvnAccept(listening, 30), INVALID_SOCKET);
    EXPECT_GE(MsSince(start), 14);
    EXPECT_LT(MsSince(start), 1000);
    KvnCloseSocket(listening);
}

TEST_F(PlatformSockets, ARefusedConnectionIsReportedAsRefused) {
    const unsigned short port = ClosedPort();

    SOCKET blocking = KvnTcpSocket();
    ASSERT_TRUE(IsOpen(blocking));
    EXPECT_EQ(KvnConnect(blocking, KvnLoopbackAddress(), port), -1);
    EXPECT_EQ(KvnSocketError(), WSAECONNREFUSED);
    KvnCloseSocket(blocking);

    SOCKET s = KvnTcpSocket();
    ASSERT_EQ(KvnSetNonBlocking(s, TRUE), 0);
    if (KvnConnect(s, KvnLoopbackAddress(), port) == -1 && KvnSocketError() == WSAEWOULDBLOCK) {
        // The outcome comes later, as the socket's pending error.
        EXPECT_GE(KvnWaitWritable(s, 3000), 0);
        EXPECT_EQ(KvnGetPendingError(s), WSAECONNREFUSED);
    } else {
        EXPECT_EQ(KvnSocketError(), WSAECONNREFUSED);
    }
    KvnCloseSocket(s);
}

TEST_F(PlatformSockets, SendingToAPeerThatWentAwayFailsWithoutEndingTheProcess) {
    Link link;
    ASSERT_TRUE(link.Up());
    link.CloseClient();
    int result = 0;
    for (int i = 0; i < 200 && result >= 0; ++i) {
        result = KvnSend(link.server, "x", 1);
        if (result >= 0) KvnSleep(1);
    }
    ASSERT_EQ(result, -1);
    const int error = KvnSocketError();
    EXPECT_TRUE(error == WSAECONNRESET || error == WSAECONNABORTED || error == WSAESHUTDOWN)
        << error;
}

TEST_F(PlatformSockets, DatagramsReachABoundSocket) {
    SOCKET receiver = KvnUdpSocket();
    SOCKET sender = KvnUdpSocket();
    ASSERT_TRUE(IsOpen(receiver));
    ASSERT_TRUE(IsOpen(sender));
    ASSERT_EQ(KvnBind(receiver, KvnLoopbackAddress(), 0), 0);
    const unsigned short port = KvnGetLocalPort(receiver);
    ASSERT_NE(port, 0);
    EXPECT_EQ(KvnSendTo(sender, "beat", 4, KvnLoopbackAddress(), port), 4);
    ASSERT_EQ(KvnWaitReadable(receiver, 2000), 1);
    char buffer[16];
    EXPECT_EQ(KvnRecvFrom(receiver, buffer, sizeof buffer), 4);
    EXPECT_EQ(std::memcmp(buffer, "beat", 4), 0);
    KvnCloseSocket(sender);
    KvnCloseSocket(receiver);
}

TEST_F(PlatformSockets, AddressesAreReadAsInetAddrAndResolvedToIPv4) {
    EXPECT_EQ(KvnInetAddr("127.0.0.1"), KvnLoopbackAddress());
    EXPECT_EQ(KvnInetAddr("255.255.255.255"), 0xFFFFFFFFu);
    EXPECT_EQ(KvnInetAddr("not.an.address"), 0xFFFFFFFFu);
    DWORD address = 0;
    EXPECT_TRUE(KvnResolveHost("127.0.0.1", &address));
    EXPECT_EQ(address, KvnLoopbackAddress());
    EXPECT_FALSE(KvnResolveHost("", &address));
}

// ---- Socket events ----------------------------------------------------------------------

TEST_F(PlatformSockets, DataIsFdReadUntilAllOfItIsReadThenThePeersCloseIsFdCloseOnce) {
    Link link;
    ASSERT_TRUE(link.Up());
    SocketEvent e;
    ASSERT_EQ(KvnSocketEventSelect(link.server, e.h, FD_READ | FD_CLOSE), 0);
    EXPECT_EQ(KvnWaitForSingleObject(e.h, 0), static_cast<DWORD>(WAIT_TIMEOUT));

    ASSERT_EQ(KvnSend(link.client, "0123456789", 10), 10);
    ASSERT_EQ(KvnWaitForSingleObject(e.h, 2000), WAIT_OBJECT_0);
    NetworkEvents n = Enumerate(link.server, e.h);
    EXPECT_EQ(n.events, FD_READ);

    // Part of the data read: the rest is reported again.
    char buffer[16];
    ASSERT_EQ(KvnRecv(link.server, buffer, 4), 4);
    ASSERT_EQ(KvnWaitForSingleObject(e.h, 2000), WAIT_OBJECT_0);
    EXPECT_EQ(Enumerate(link.server, e.h).events, FD_READ);
    EXPECT_EQ(ReadAvailable(link.server), "456789");
    EXPECT_EQ(KvnWaitForSingleObject(e.h, 30), static_cast<DWORD>(WAIT_TIMEOUT));

    link.CloseClient();
    ASSERT_EQ(KvnWaitForSingleObject(e.h, 2000), WAIT_OBJECT_0);
    n = Enumerate(link.server, e.h);
    EXPECT_EQ(n.events, FD_CLOSE);
    EXPECT_EQ(n.closeError, 0);
    EXPECT_EQ(KvnRecv(link.server, buffer, sizeof buffer), 0);

    // Never again.
    EXPECT_EQ(KvnWaitForSingleObject(e.h, 30), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(Enumerate(link.server, e.h).events, 0);
}

TEST_F(PlatformSockets, APeerThatClosesRightAfterSendingIsSeenClosedOnlyOnceItsDataIsRead) {
    Link link;
    ASSERT_TRUE(link.Up());
    SocketEvent e;
    ASSERT_EQ(KvnSocketEventSelect(link.server, e.h, FD_READ | FD_CLOSE), 0);
    const std::string sent(3000, 'k');
    ASSERT_EQ(KvnSend(link.client, sent.data(), static_cast<int>(sent.size())),
              static_cast<int>(sent.size()));
    link.CloseClient();
    KvnSleep(20);  // data and close have both arrived

    std::string received;
    std::vector<long> sets;
    std::string receivedAtClose;
    for (int pass = 0; pass < 50; ++pass) {
        if (KvnWaitForSingleObject(e.h, 2000) != WAIT_OBJECT_0) break;
        NetworkEvents n = Enumerate(link.server, e.h);
        sets.push_back(n.events);
        if (n.events & FD_CLOSE) {
            EXPECT_EQ(n.closeError, 0);
            receivedAtClose = received;
        }
        if (n.events & FD_READ) received += ReadAvailable(link.server);
        if (n.events & FD_CLOSE) break;
    }
    EXPECT_EQ(received, sent);
    ASSERT_FALSE(sets.empty());
    EXPECT_EQ(sets.front() & FD_READ, FD_READ);
    EXPECT_EQ(sets.back() & FD_CLOSE, FD_CLOSE);
#if !defined(_WIN32)
    // This layer never reports the two together (Windows may).
    EXPECT_EQ(receivedAtClose, sent);
    for (long set : sets) EXPECT_TRUE(set == FD_READ || set == FD_CLOSE) << set;
#endif
    EXPECT_EQ(KvnWaitForSingleObject(e.h, 30), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(PlatformSockets, AResetConnectionIsFdCloseWithItsError) {
    Link link;
    ASSERT_TRUE(link.Up());
    SocketEvent e;
    ASSERT_EQ(KvnSocketEventSelect(link.server, e.h, FD_READ | FD_CLOSE), 0);
    // Closing with unread data resets the connection.
    ASSERT_EQ(KvnSend(link.server, "unread", 6), 6);
    ASSERT_EQ(KvnWaitReadable(link.client, 2000), 1);
    link.CloseClient();

    ASSERT_EQ(KvnWaitForSingleObject(e.h, 2000), WAIT_OBJECT_0);
    NetworkEvents n = Enumerate(link.server, e.h);
    EXPECT_EQ(n.events, FD_CLOSE);
#if defined(_WIN32)
    // Some WinSock implementations (Wine's among them) report a reset as a
    // plain close.
    EXPECT_TRUE(n.closeError == WSAECONNRESET || n.closeError == WSAECONNABORTED ||
                n.closeError == 0) << n.closeError;
#else
    EXPECT_TRUE(n.closeError == WSAECONNRESET || n.closeError == WSAECONNABORTED) << n.closeError;
#endif
    EXPECT_EQ(KvnWaitForSingleObject(e.h, 30), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(PlatformSockets, ASetSocketEventStaysSetUntilItsEventsAreTaken) {
    Link link;
    ASSERT_TRUE(link.Up());
    SocketEvent e;
    ASSERT_EQ(KvnSocketEventSelect(link.server, e.h, FD_READ | FD_CLOSE), 0);
    ASSERT_EQ(KvnSend(link.client, "x", 1), 1);
    ASSERT_EQ(KvnWaitForSingleObject(e.h, 2000), WAIT_OBJECT_0);
    EXPECT_EQ(KvnWaitForSingleObject(e.h, 0), WAIT_OBJECT_0);  // manual reset
    EXPECT_TRUE(KvnResetSocketEvent(e.h));
    EXPECT_EQ(KvnWaitForSingleObject(e.h, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    // The network events recorded before the reset are still there to take.
    EXPECT_EQ(Enumerate(link.server, e.h).events, FD_READ);
}

TEST_F(PlatformSockets, ClosingTheSocketUnderAWaitingThreadEndsTheConnectionAtOnce) {
    Link link;
    ASSERT_TRUE(link.Up());
    SocketEvent e;
    ASSERT_EQ(KvnSocketEventSelect(link.client, e.h, FD_READ | FD_CLOSE), 0);
    HANDLE stop = KvnCreateEvent(TRUE, FALSE);
    std::atomic<DWORD> result{WAIT_FAILED};
    std::thread waiter([&] {
        const HANDLE handles[] = {e.h, stop};
        result = KvnWaitForMultipleObjects(2, handles, 5000);
    });
    KvnSleep(20);

    link.CloseClient();
    // The peer sees the end at once, while the thread still waits.
    const auto start = Clock::now();
    EXPECT_EQ(KvnWaitReadable(link.server, 1000), 1);
    char buffer[4];
    EXPECT_EQ(KvnRecv(link.server, buffer, sizeof buffer), 0);
    EXPECT_LT(MsSince(start), 500);

    // The waiter is still waiting, and wakes for its other handle.
    KvnSetEvent(stop);
    waiter.join();
    EXPECT_EQ(result.load(), WAIT_OBJECT_0 + 1);
    EXPECT_LT(MsSince(start), 2000);
    KvnCloseHandle(stop);
}

}  // namespace
