// What lives as long as whom: a connection freed while a request uses it, and
// a thread that outlives its stop time-out while its client goes.
#include <atomic>
#include <memory>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "ClientProbe.h"
#include "support/ServiceSession.h"

namespace {

using peer::Connection;
using peer::Message;

class Lifetime : public ::testing::Test {
protected:
    // Opens the session with one connection, whose link plays `connexion`.
    int OpenOneConnexion(probe::Client& client, peer::Script connexion) {
        service_.OnAccept(0, MainLink(SessionAnswer()));
        service_.OnAccept(1, ConnexionLink(std::move(connexion)));
        EXPECT_EQ(KVN_NO_ERROR, client.Open(service_.Port()));
        const int hCnx = client.GetConnexion();
        EXPECT_GT(hCnx, 0);
        return hCnx;
    }

    probe::WinSock winsock_;
    peer::ScriptedPeer service_;
};

TEST_F(Lifetime, FreeConnexionWaitsForTheRequestInProgressOnTheConnexion) {
    // A request left without its connection's thread would wait this long.
    probe::ShortAnswerWait shortAnswerWait(2000);
    auto reading = std::make_shared<std::atomic<bool>>(false);
    probe::Client client;
    const int hCnx = OpenOneConnexion(client, [reading](Connection& c) {
        Message request = c.Expect(KVN_EXECUTE);
        c.Ack(request);
        *reading = true;
        c.Delay(300);
        c.Answer(peer::Msg(KVN_EXECUTE, request.IdApplication(), request.IdConnexion(),
                           {peer::Long(0), peer::Long(5)}));
        AcknowledgeUntilClose(c);
    });
    int r = -1, resultat = 0;
    std::thread request([&] { r = client.Execute(hCnx, L"UPDATE T SET A = 1", resultat); });
    ASSERT_TRUE(probe::WaitUntil([&] { return reading->load(); }));
    EXPECT_EQ(KVN_NO_ERROR, client.FreeConnexion(hCnx));
    request.join();
    EXPECT_EQ(KVN_NO_ERROR, r) << "the request ran to its end on a connection freed under it";
    EXPECT_EQ(5, resultat);
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.Execute(hCnx, L"UPDATE T SET A = 1", resultat));
    client.Free();
}

// The request's answer never comes. Free ends the connection's thread at
// once (the service sees its socket close), and the request gives up its
// answer within its own limit, as a request whose connection went away.
TEST_F(Lifetime, FreeDuringARequestThatWaitsForItsAnswerEndsTheConnexionAtOnce) {
    probe::ShortAnswerWait shortAnswerWait(3000);
    auto reading = std::make_shared<std::atomic<bool>>(false);
    auto closedAfterMs = std::make_shared<std::atomic<long long>>(-1);
    probe::Client client;
    const int hCnx = OpenOneConnexion(client, [reading, closedAfterMs](Connection& c) {
        c.Ack(c.Expect(KVN_EXECUTE));
        *reading = true;  // and never answered
        const kvntest::Clock::time_point start = kvntest::Clock::now();
        if (c.ExpectClientClose(10000)) *closedAfterMs = kvntest::MsSince(start);
    });
    int r = -1, resultat = 0;
    std::thread request([&] { r = client.Execute(hCnx, L"UPDATE T SET A = 1", resultat); });
    ASSERT_TRUE(probe::WaitUntil([&] { return reading->load(); }));
    const kvntest::Clock::time_point start = kvntest::Clock::now();
    client.Free();
    EXPECT_LT(kvntest::MsSince(start), 1500) << "Free waited for the request's answer";
    request.join();
    EXPECT_EQ(KVN_ERROR_TIMEOUT, r);
    EXPECT_TRUE(service_.WaitForScripts());
    EXPECT_GE(closedAfterMs->load(), 0);
    EXPECT_LT(closedAfterMs->load(), 1500) << "the connection's socket stayed open";
}

// Its thread is stuck in an exchange that the service never acknowledges when
// the client is destroyed; the stop waits are cut short. The client must
// outlive the thread (the address sanitizer sees any use after it).
TEST_F(Lifetime, AThreadThatOutlivesItsStopWaitNeverUsesADestroyedClient) {
    probe::ShortStopWaits shortStopWaits(100);
    auto stuck = std::make_shared<std::atomic<bool>>(false);
    service_.OnAccept(2, [stuck](Connection& c) {
        c.Expect(KVN_REINIT_CONNEXION);
        *stuck = true;  // and never acknowledged
        c.ExpectClientClose(10000);
    });
    std::unique_ptr<probe::Client> client(new probe::Client);
    OpenOneConnexion(*client, [](Connection& c) {
        c.Await("close");
        c.Close();
    });
    service_.Signal("close");
    ASSERT_TRUE(probe::WaitUntil([&] { return stuck->load(); }));

    const kvntest::Clock::time_point start = kvntest::Clock::now();
    client.reset();
    EXPECT_GE(kvntest::MsSince(start), 300) << "the thread was waited for past its stop wait";
    // Time for a thread left behind to run into the destroyed client.
    EXPECT_TRUE(service_.WaitForScripts());
}

}  // namespace
