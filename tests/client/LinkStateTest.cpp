// The state of the link through losses and recoveries, where several threads
// meet: each loss and each recovery told once however many threads see it,
// the requests in flight at a loss woken by it, a loss that comes while the
// links are being counted, a connection opened while the link is down, and
// the main socket left to the thread that owns it.
#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ClientProbe.h"
#include "platform/Sockets.h"
#include "support/RestartingService.h"
#include "support/ServiceSession.h"

namespace {

using kvntest::Clock;
using kvntest::MsSince;
using probe::IsSet;

class LinkState : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(nullptr, window_.h); }
    UINT Next(DWORD timeoutMs = 1000) { return window_.Next(timeoutMs); }

    probe::WinSock winsock_;
    probe::Window window_;
    const UINT perteComm_ = KvnRegisterWindowMessage(KVN_MSG_PERTE_COMM);
    const UINT commOk_ = KvnRegisterWindowMessage(KVN_MSG_COMM_OK);
};

TEST_F(LinkState, EachRestartUnderLoadIsOneLossAndOneReturnAndWakesTheRequestsInFlight) {
    // A request that a loss fails to wake waits for its answer this long.
    probe::ShortAnswerWait shortAnswerWait(2000);
    SessionAnswer patient;
    patient.timeOutAck = 3000;
    RestartingService service(patient);
    probe::Client client;
    ASSERT_EQ(KVN_NO_ERROR, client.Open(service.Port(), window_.h, L"Charge"));
    const int kConnexions = 3;
    for (int i = 1; i <= kConnexions; ++i) ASSERT_EQ(i, client.GetConnexion());
    ASSERT_EQ(commOk_, Next());

    std::atomic<bool> stop{false};
    std::atomic<int> timedOut{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < kConnexions; ++t) {
        workers.emplace_back([&, t] {
            while (!stop) {
                int resultat = 0;
                const int r = client.Execute(t + 1, L"UPDATE T SET A = 1", resultat);
                if (r == KVN_ERROR_TIMEOUT) ++timedOut;
                if (r != KVN_NO_ERROR) KvnSleep(2);
            }
        });
    }
    const int kRestarts = 4;
    for (int i = 0; i < kRestarts; ++i) {
        KvnSleep(100);  // requests in flight on every connection
        service.Restart();
        EXPECT_EQ(perteComm_, Next(3000)) << "restart " << i;
        EXPECT_EQ(commOk_, Next(5000)) << "restart " << i << ": one loss, then its return";
        ASSERT_TRUE(IsSet(client.GetEventCommOK(), 5000)) << "every link back";
    }
    stop = true;
    for (std::thread& w : workers) w.join();
    EXPECT_EQ(0u, Next(200)) << "no loss told twice";
    EXPECT_FALSE(IsSet(client.GetEventCommOK())) << "once per recovery";
    EXPECT_EQ(0, timedOut.load()) << "a request in flight at a loss waited for its answer";
    client.Free();
}

// The second request passed the link test before the loss and waits for the
// connection's request lock, held by the first, whose send the service never
// acknowledges: both were in flight, both learn of the loss.
TEST_F(LinkState, ALossWakesARequestThatWasWaitingForItsTurn) {
    peer::ScriptedPeer service;
    auto read = std::make_shared<std::atomic<bool>>(false);
    service.OnAccept(0, MainLink(SessionAnswer()));
    service.OnAccept(1, [read](peer::Connection& c) {
        AcceptConnexion(c);
        c.Expect(KVN_EXECUTE);
        *read = true;  // and never acknowledged
        c.ExpectClientClose(15000);
    });
    probe::Client client;
    ASSERT_EQ(KVN_NO_ERROR, client.Open(service.Port(), window_.h));
    ASSERT_EQ(commOk_, Next());
    const int hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);

    auto execute = [&](int& r) {
        int resultat = 0;
        r = client.Execute(hCnx, L"UPDATE T SET A = 1", resultat);
    };
    int first = 0, second = 0;
    std::thread a(execute, std::ref(first));
    ASSERT_TRUE(probe::WaitUntil([&] { return read->load(); }));
    std::thread b(execute, std::ref(second));
    KvnSleep(100);  // b waits for the request lock

    const Clock::time_point loss = Clock::now();
    client.m_NotifyComLost();
    a.join();
    b.join();
    EXPECT_LT(MsSince(loss), 5000) << "the second request waited for its send's limit";
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, first);
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, second);
    EXPECT_EQ(perteComm_, Next());
    EXPECT_EQ(0u, Next(0)) << "told once";
    client.Free();
}

// The count has seen the main link up and waits for the registry, held here,
// when a loss comes on another thread: however the two then meet, the link
// is not left down with every link counted up (requests accepted, and no
// "comm OK" for the next recovery).
TEST(LinkCount, ALossThatComesWhileTheLinksAreCountedIsNotUndoneByTheCount) {
    probe::Client client;  // no session: no other thread takes part
    for (int round = 0; round < 10; ++round) {
        client.SetMainLink(true);
        client.ListLock().Lock(INFINITE);
        std::thread counter([&] { client.m_IncConnected(); });
        KvnSleep(10);  // the count waits for the registry
        std::thread loss([&] { client.m_NotifyComLost(); });
        KvnSleep(10);  // the loss waits for the count, or for the registry
        client.ListLock().Unlock();
        counter.join();
        loss.join();
        ASSERT_FALSE(client.MainLinkUp());
        ASSERT_FALSE(client.AllConnected()) << "round " << round;
    }
}

TEST_F(LinkState, AConnexionOpenedWhileTheLinkIsDownStaysUp) {
    peer::ScriptedPeer service;
    auto closed = std::make_shared<std::atomic<bool>>(false);
    service.OnAccept(0, MainLink(SessionAnswer()));
    service.OnAccept(1, [closed](peer::Connection& c) {
        AcceptConnexion(c);
        *closed = !c.ExpectSilence(400);
        AcknowledgeUntilClose(c);
    });
    probe::Client client;
    ASSERT_EQ(KVN_NO_ERROR, client.Open(service.Port(), window_.h));
    client.SetMainLink(false);

    const int hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);
    KvnSleep(400);
    EXPECT_FALSE(closed->load()) << "its socket was closed to be opened again";
    EXPECT_TRUE(client.IsConnexionConnected(hCnx));
    EXPECT_EQ(2, service.Accepted()) << "no re-opening";
    client.Free();
}

TEST_F(LinkState, ALossDeclaredOnAnotherThreadLeavesTheMainSocketToItsThread) {
    peer::ScriptedPeer service;
    service.OnAccept(0, MainLink(SessionAnswer()));
    probe::Client client;
    ASSERT_EQ(KVN_NO_ERROR, client.Open(service.Port(), window_.h));
    const SOCKET main = client.MainSocket();

    // Held, the state keeps the main socket's thread from closing its socket:
    // until it does, no new socket may take its number (numbers are given
    // lowest first: new sockets are taken until one would have it).
    client.StateLock().Lock(INFINITE);
    client.m_NotifyComLost();
    std::vector<SOCKET> taken;
    bool reused = false;
    while (!reused && taken.size() < 64) {
        taken.push_back(KvnUdpSocket());
        reused = taken.back() == main;
    }
    client.StateLock().Unlock();
    for (SOCKET s : taken) KvnCloseSocket(s);
    EXPECT_FALSE(reused) << "the number went to another socket while its thread still had it";
    client.Free();
}

}  // namespace
