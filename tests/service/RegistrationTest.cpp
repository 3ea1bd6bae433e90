// korvaned's link requests: the registration of an application with the
// service's communication parameters, the opening of logical connections,
// the limit on the number of applications, and the heartbeat it sends.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <tuple>

#include <korvane/SockInit.h>

#include "RunningService.h"
#include "ServiceLinks.h"
#include "platform/Sockets.h"
#include "support/TestUtil.h"

TEST(ServiceRegistration, AnswersWithTheTenParametersOfItsConfigurationAndOpensConnexionsForItsApplications) {
    RunningService service({"--hb-period", "1500", "--hb-count", "4", "--hb-port", "47001", "--hb-address",
                            "127.0.0.2", "--retry", "3", "--connect-timeout", "2500", "--ack-timeout", "1200",
                            "--db-type", "7"});
    ASSERT_NE(0, service.Port());
    ApplicationLink app(service.Port());
    ASSERT_EQ(0, app.result);
    EXPECT_GT(app.IdApplication(), 0);
    const CParamComm& c = app.comm;
    EXPECT_EQ(std::make_tuple(1500, 4, 47001, 0, 3, 2500, 1200, 7),
              std::make_tuple(+c.nPeriodeHB, +c.nNbPeriodeHB, +c.nPortHB, +c.bMulticastHB, +c.nNbRetrySend,
                              +c.nTimeOutConnect, +c.nTimeOutAck, app.message.GetDBType()));
    EXPECT_STREQ(L"127.0.0.2", c.szAdresseHB);

    // Logical connections open for a registered application only, and carry
    // the database requests.
    int id = 0;
    {
        ApplicationLink other(service.Port(), L"");
        ASSERT_EQ(0, other.result);
        id = other.IdApplication();
        EXPECT_NE(app.IdApplication(), id) << "each application gets an id of its own";
        // A database request on the main link is answered with an error.
        CMsgSocketClient request;
        request.Init(id, 0, other.socket.Get(), &other.comm);
        ASSERT_EQ(0, request.CreateExec(L"SELECT 1"));
        ASSERT_EQ(1, request.SendMessageW(other.socket.Get(), -1, -1));
        CMsgSocket answer;
        ASSERT_TRUE(ReceiveAnswer(other.socket.Get(), answer));
        EXPECT_EQ(KVN_EXECUTE, answer.GetFonction());
        EXPECT_EQ(KVN_ERROR_UNKNOWN, LongAt(answer, 0));
        EXPECT_EQ(KVN_ERROR_HANDLE_CNX, LongAt(answer, 1));
    }
    // The main link was lost; the application comes back with its id on a new one.
    ClientSocket socket(service.Port());
    CParamComm comm;
    CMsgSocketClient message;
    message.Init(id, 0, socket.Get(), &comm);
    EXPECT_EQ(0, message.SendReInitApplication(L"service-tests"));
    EXPECT_EQ(id, message.GetIdApplication());

    EXPECT_EQ(0, ConnexionLink(service.Port(), id, 1).result);
    EXPECT_EQ(0, ConnexionLink(service.Port(), id, 2).result);
    EXPECT_EQ(0, ConnexionLink(service.Port(), id, 1, true).result) << "attached again after a loss";
    EXPECT_NE(0, ConnexionLink(service.Port(), id + 1000, 1).result) << "an unknown application";

    RunningService multicast({"--hb-mode", "multicast", "--hb-address", "239.255.12.34"});
    ASSERT_NE(0, multicast.Port());
    ApplicationLink member(multicast.Port());
    ASSERT_EQ(0, member.result);
    EXPECT_EQ(1, member.comm.bMulticastHB);
    EXPECT_STREQ(L"239.255.12.34", member.comm.szAdresseHB);
}

TEST(ServiceLimits, RefusesTheApplicationBeyondTheLimitWithMinus54UntilAPlaceIsFree) {
    RunningService service({"--max-clients", "2"});
    ASSERT_NE(0, service.Port());
    auto first = std::make_unique<ApplicationLink>(service.Port());
    ApplicationLink second(service.Port());
    ASSERT_EQ(0, first->result);
    ASSERT_EQ(0, second.result);
    EXPECT_EQ(KVN_ERROR_MAX_CLIENT_ATTEINT, ApplicationLink(service.Port()).result);

    // CLOSE_APPLICATION frees the place though the link stays open...
    EXPECT_EQ(0, second.message.SendCloseApplication());
    EXPECT_EQ(0, RegisterWithin(service.Port(), 5000));
    // ...and so does a closed link, once the service has seen the close.
    first.reset();
    EXPECT_EQ(0, RegisterWithin(service.Port(), 5000));
}

TEST(ServiceHeartbeat, BareHeadersReachEveryApplicationOfTheMachineAtThePeriod) {
    // Two applications of this machine listen on the heartbeat port, as the
    // library does (address reuse, any address): listening on loopback, the
    // service's default heartbeat reaches both, not only the last one bound.
    ASSERT_EQ(1, SockInitWinSock());
    const unsigned short port = FreeUdpPort();
    ASSERT_NE(0, port);
    SOCKET udp[2];
    for (SOCKET& s : udp) {
        s = KvnUdpSocket();
        ASSERT_NE(INVALID_SOCKET, s);
        KvnSetSocketOption(s, KVN_SO_REUSEADDR, 1);
        ASSERT_EQ(0, KvnBind(s, KVN_ADDR_ANY, port));
    }
    RunningService service({"--hb-mode", "broadcast", "--hb-port", std::to_string(port), "--hb-period", "100"});
    ASSERT_NE(0, service.Port());
    const auto start = kvntest::Clock::now();
    int received[2] = {0, 0};
    while ((received[0] < 5 || received[1] < 5) && kvntest::MsSince(start) < 5000) {
        for (int i = 0; i < 2; ++i) {
            if (received[i] >= 5 || KvnWaitReadable(udp[i], 100) != 1) continue;
            char datagram[64];
            ASSERT_EQ(KVN_TAILLE_ENTETE, KvnRecvFrom(udp[i], datagram, sizeof(datagram)));
            EXPECT_EQ(KVN_HEART_BEAT, datagram[6]);
            const char none[8] = {};  // no value, no body
            EXPECT_EQ(0, std::memcmp(none, datagram + 7, 8));
            ++received[i];
        }
    }
    EXPECT_EQ(5, received[0]);
    EXPECT_EQ(5, received[1]);
    EXPECT_GE(kvntest::MsSince(start), 350) << "five datagrams 100 ms apart take at least 400 ms";
    for (SOCKET s : udp) KvnCloseSocket(s);
    SockCloseWinSock();
}
