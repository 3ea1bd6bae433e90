// The TCP transport on loopback: connecting (refusals, address forms, the two
// connect modes), moving exact byte counts within a budget (a peer that reads
// nothing, a peer that closed, a socket error, a tick counter that wraps) and
// the two small helpers.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "UnitUtil.h"
#include "diag/Log.h"
#include "net/Transport.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace {

using kvntest::Clock;
using kvntest::kTickSlackMs;
using kvntest::MsSince;

// A connected pair on loopback: the client end opened by Socket_Client, the
// server end accepted from an ephemeral listener.
struct Link {
    SOCKET client = INVALID_SOCKET;
    SOCKET server = INVALID_SOCKET;

    explicit Link(int connectTimeoutMs, const char* host = "127.0.0.1") {
        SOCKET listening = KvnTcpListen(KvnLoopbackAddress(), 0, 4);
        char error[256] = "";
        client = Socket_Client(host, KvnGetLocalPort(listening), connectTimeoutMs, error);
        if (client != INVALID_SOCKET) server = KvnAccept(listening, 2000);
        KvnCloseSocket(listening);
    }
    ~Link() {
        if (client != INVALID_SOCKET) KvnCloseSocket(client);
        if (server != INVALID_SOCKET) KvnCloseSocket(server);
    }
    bool Up() const { return client != INVALID_SOCKET && server != INVALID_SOCKET; }
};

std::vector<char> Pattern(size_t size) {
    std::vector<char> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + 3);
    return bytes;
}

// Sends `text` on s after `ms`, from another thread.
std::thread SendLater(SOCKET s, const char* text, int ms) {
    return std::thread([=] {
        KvnSleep(ms);
        KvnSend(s, text, static_cast<int>(std::strlen(text)));
    });
}

// A tick source under the test's control.
std::atomic<DWORD> g_fakeTicks{0};
DWORD FakeTicks() { return g_fakeTicks.load(); }

// Real milliseconds shifted so that the counter wraps a given time after
// the source is installed.
std::atomic<DWORD> g_wrapBase{0};
Clock::time_point g_wrapStart;
DWORD WrappingTicks() { return g_wrapBase.load() + static_cast<DWORD>(MsSince(g_wrapStart)); }

class TransportTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(SockInitWinSock(), 1); }
    static void TearDownTestSuite() { SockCloseWinSock(); }

    void SetUp() override { KvnResetLogForTests(); }
    void TearDown() override {
        KvnSetTickCountSource(nullptr);
        KvnResetLogForTests();
    }

    // Switches the request log on at level 5, in a file of the test's own.
    void LogToFile() { InitLog(5, (dir_.path / "requests.log").wstring().c_str(), 1); }
    std::string LogContent() { return kvnunit::ReadFile(dir_.path / "requests.log"); }

    kvnunit::TempDir dir_;
};

// ---- Connecting ----------------------------------------------------------------

TEST_F(TransportTest, UnusableHostsAreRefusedWithTheirTextAndNamesAreResolved) {
    const struct {
        const char* host;
        const char* error;  // nullptr: the buffer is left alone
    } cases[] = {
        {nullptr, nullptr},
        {"", nullptr},
        {"noaddress", nullptr},
        // The all-ones address is taken as dotted, and refused.
        {"255.255.255.255", "'inet_addr' function returned error; addr: 255.255.255.255"},
        // Digits and dots with letters are a name, not a dotted address.
        {"127.0.0.1.invalid", "'gethostbyname' function returned error; addr: 127.0.0.1.invalid"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.host ? c.host : "(null)");
        char error[256] = "untouched";
        const auto start = Clock::now();
        EXPECT_EQ(Socket_Client(c.host, 80, 1000, error), INVALID_SOCKET);
        if (!c.error) {
            EXPECT_LT(MsSince(start), 500);
        }
        EXPECT_STREQ(error, c.error ? c.error : "untouched");
    }
    // Without a buffer nothing is written, and the result is the same.
    EXPECT_EQ(Socket_Client("255.255.255.255", 80, 1000, nullptr), INVALID_SOCKET);
    Link byName(1000, "localhost");
    EXPECT_TRUE(byName.Up());
}

TEST_F(TransportTest, ARefusedConnectionIsNeverReturnedAndEndsInTheTimeOutText) {
    const unsigned short port = kvntest::ClosedPort();
    char error[256] = "";
    const auto start = Clock::now();
    EXPECT_EQ(Socket_Client("127.0.0.1", port, 400, error), INVALID_SOCKET);
    EXPECT_LT(MsSince(start), 1400);
    EXPECT_EQ(std::string(error),
              "Socket_Client (127.0.0.1," + std::to_string(port) + ");  connection timeout");
}

TEST_F(TransportTest, ATimedConnectGivesANonBlockingSocketAndAnUntimedOneABlockingSocket) {
    char byte = 0;
    Link timed(1000);
    ASSERT_TRUE(timed.Up());
    EXPECT_EQ(KvnRecv(timed.client, &byte, 1), -1);
    EXPECT_EQ(KvnSocketError(), WSAEWOULDBLOCK);

    Link blocking(-1);
    ASSERT_TRUE(blocking.Up());
    std::thread late = SendLater(blocking.server, "k", 100);
    const auto start = Clock::now();
    EXPECT_EQ(KvnRecv(blocking.client, &byte, 1), 1);  // waited for the byte
    EXPECT_GE(MsSince(start), 50 - kTickSlackMs);
    EXPECT_EQ(byte, 'k');
    late.join();
}

// ---- Moving bytes --------------------------------------------------------------

TEST_F(TransportTest, ABudgetThatNeverRunsOutWaitsForLateBytesAndZeroBytesMoveAtOnce) {
    Link link(1000);
    ASSERT_TRUE(link.Up());
    std::thread late = SendLater(link.server, "0123456789abcdef", 100);
    char header[16];
    EXPECT_EQ(SockReceive(link.client, header, 16, 0xFFFFFFFFu), 16);
    EXPECT_EQ(std::memcmp(header, "0123456789abcdef", 16), 0);
    late.join();

    const auto start = Clock::now();
    EXPECT_EQ(SockSend(link.client, header, 0, 5000), 0);
    EXPECT_EQ(SockReceive(link.client, header, 0, 5000), 0);
    EXPECT_LT(MsSince(start), 100);
}

TEST_F(TransportTest, APeerThatReadsNothingGetsPartOfTheBytesWhenTheBudgetRunsOut) {
    LogToFile();
    Link link(1000);
    ASSERT_TRUE(link.Up());
    const std::vector<char> bytes = Pattern(16 * 1024 * 1024);
    const auto start = Clock::now();
    const int sent = SockSend(link.client, bytes.data(), static_cast<int>(bytes.size()), 200);
    const long long elapsed = MsSince(start);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(bytes.size()));
    EXPECT_GE(elapsed, 190 - kTickSlackMs);
    EXPECT_LT(elapsed, 2000);
    EXPECT_NE(LogContent().find(kvnunit::LogLine("SockSend, emission partielle")), std::string::npos);
}

TEST_F(TransportTest, APeerThatClosedGivesWhatCameOnceTheBudgetRanOut) {
    Link link(1000);
    ASSERT_TRUE(link.Up());
    ASSERT_EQ(SockSend(link.server, "0123456789", 10, 1000), 10);
    KvnCloseSocket(link.server);
    link.server = INVALID_SOCKET;

    char buffer[100];
    const auto start = Clock::now();
    EXPECT_EQ(SockReceive(link.client, buffer, sizeof buffer, 300), 10);
    const long long elapsed = MsSince(start);
    EXPECT_GE(elapsed, 290 - kTickSlackMs);
    EXPECT_LT(elapsed, 2000);
    EXPECT_EQ(std::memcmp(buffer, "0123456789", 10), 0);
}

TEST_F(TransportTest, ASocketErrorEndsTheTransferWithMinusOneAndALevelFiveLine) {
    LogToFile();
    SOCKET closed = KvnTcpSocket();
    KvnCloseSocket(closed);
    char buffer[8] = {};
    EXPECT_EQ(SockSend(closed, buffer, 8, 1000), -1);
    EXPECT_EQ(SockReceive(closed, buffer, 8, 1000), -1);

    const std::string log = LogContent();
    const size_t send = log.find(" SockSend Failed code : ");
    ASSERT_NE(send, std::string::npos);
    EXPECT_NE(log.find("; nB Boucle 0,\r\n\r\r\n", send), std::string::npos);
    const size_t receive = log.find(" SockReceive Failed code : ");
    ASSERT_NE(receive, std::string::npos);
    EXPECT_NE(log.find(", Pos 0\r\n\r\r\n", receive), std::string::npos);
}

TEST_F(TransportTest, ATickCounterThatWrapsDuringAReceiveRestartsTheBudget) {
    Link link(1000);
    ASSERT_TRUE(link.Up());
    // The counter wraps 150 ms into a 200 ms budget: the budget starts again
    // there, so the receive lasts about 350 ms instead of 200.
    g_wrapStart = Clock::now();
    g_wrapBase = 0xFFFFFFFFu - 149;
    KvnSetTickCountSource(&WrappingTicks);
    char buffer[16];
    const auto start = Clock::now();
    EXPECT_EQ(SockReceive(link.client, buffer, sizeof buffer, 200), 0);
    const long long elapsed = MsSince(start);
    KvnSetTickCountSource(nullptr);
    EXPECT_GE(elapsed, 300 - kTickSlackMs);
    EXPECT_LT(elapsed, 2000);
}

// ---- Helpers -------------------------------------------------------------------

TEST_F(TransportTest, IsTimeOutedWantsMoreThanTheLimitAndRestartsOnAWrap) {
    KvnSetTickCountSource(&FakeTicks);
    DWORD start = 1000;
    g_fakeTicks = 1100;
    EXPECT_EQ(IsTimeOuted(start, 100), 0);
    g_fakeTicks = 1101;
    EXPECT_EQ(IsTimeOuted(start, 100), 1);
    EXPECT_EQ(start, 1000u);

    g_fakeTicks = 5;  // wrapped around
    EXPECT_EQ(IsTimeOuted(start, 100), 0);
    EXPECT_EQ(start, 5u);

    start = 0;
    g_fakeTicks = 0xFFFFFFFFu;
    EXPECT_EQ(IsTimeOuted(start, 0xFFFFFFFFu), 0);
}

TEST_F(TransportTest, WideToNarrowKeepsTheLowByteOfEachCharacter) {
    char narrow[8];
    std::memset(narrow, 'X', sizeof narrow);
    WideToNarrow(narrow, L"10.\x0141\x00e9");
    EXPECT_EQ(std::string(narrow, 6), std::string("10.\x41\xe9", 5) + '\0');
    EXPECT_EQ(narrow[6], 'X');
}

}  // namespace
