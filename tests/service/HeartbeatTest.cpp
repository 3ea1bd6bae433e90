// korvaned's heartbeat: bare message headers with function 5, sent as UDP
// datagrams to the configured address and port at the configured period.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include <korvane/CMsgSocket.h>
#include <korvane/SockInit.h>

#include "RunningService.h"
#include "platform/Sockets.h"
#include "support/TestUtil.h"

TEST(ServiceHeartbeat, DatagramsArriveOnLoopbackAtThePeriod) {
    ASSERT_EQ(1, SockInitWinSock());
    SOCKET udp = KvnUdpSocket();
    ASSERT_NE(INVALID_SOCKET, udp);
    ASSERT_EQ(0, KvnBind(udp, KvnLoopbackAddress(), 0));
    const unsigned short port = KvnGetLocalPort(udp);
    ASSERT_NE(0, port);

    RunningService service({"--hb-mode", "unicast", "--hb-address", "127.0.0.1", "--hb-port",
                            std::to_string(port), "--hb-period", "100"});
    ASSERT_NE(0, service.Port());
    const auto start = kvntest::Clock::now();
    int received = 0;
    while (received < 5 && kvntest::MsSince(start) < 5000) {
        if (KvnWaitReadable(udp, 1000) != 1) continue;
        char datagram[64];
        const int n = KvnRecvFrom(udp, datagram, sizeof(datagram));
        ASSERT_EQ(KVN_TAILLE_ENTETE, n);
        EXPECT_EQ(KVN_HEART_BEAT, datagram[6]);
        std::int32_t count = -1;
        std::uint32_t size = 1;
        std::memcpy(&count, datagram + 7, 4);  // a bare header: no value, no body
        std::memcpy(&size, datagram + 11, 4);
        EXPECT_EQ(0, count);
        EXPECT_EQ(0u, size);
        ++received;
    }
    EXPECT_EQ(5, received);
    // Five datagrams 100 ms apart take at least 400 ms.
    EXPECT_GE(kvntest::MsSince(start), 350);
    KvnCloseSocket(udp);
    SockCloseWinSock();
}
