// Execute, and through it the request frame that every database operation
// shares: what the application gets back for each way an exchange can end,
// what is logged, and that the connection is free again afterwards.
#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <korvane/KvnDefs.h>

#include "ClientTestUtil.h"
#include "client/ClientTimings.h"
#include "operations/RequestFrame.h"
#include "peer/ScriptedPeer.h"
#include "platform/Kernel.h"
#include "platform/Threads.h"
#include "support/OperationSession.h"
#include "support/ServiceSession.h"
#include "support/TestUtil.h"

namespace {

using peer::Connection;
using peer::Long;
using peer::Message;

class ExecuteOn : public OperationSession {
protected:
    void TearDown() override {
        KvnSetAnswerWaitForTests(0);
        OperationSession::TearDown();
    }
    // Waits (bounded) until the connection's link has read a request.
    bool ServiceHasARequest() {
        kvntest::Clock::time_point start = kvntest::Clock::now();
        while (Requests().empty()) {
            if (kvntest::MsSince(start) > peer::kWaitMs) return false;
            KvnSleep(10);
        }
        return true;
    }
};

// ---- Answers -------------------------------------------------------------------------

TEST_F(ExecuteOn, SuccessReturnsTheServiceValueAndAStatusOtherThanZeroDecidesTheResult) {
    const struct {
        std::vector<peer::Value> answer;
        int code, resultat;
    } cases[] = {{{Long(0), Long(12)}, KVN_NO_ERROR, 12},
                 {{Long(-2), Long(KVN_ERROR_ODBC)}, KVN_ERROR_ODBC, 0},
                 {{Long(0), Long(1), Long(2)}, KVN_ERROR_RECEIVE, 0},  // one value too many
                 // a status of the service's own gives the code the answer left: 0
                 {{Long(3), Long(9)}, KVN_NO_ERROR, 0},
                 {{Long(0), Long(-7)}, KVN_NO_ERROR, -7}};
    Open([cases](Connection& c) {
        for (const auto& k : cases) Serve(c, KVN_EXECUTE, k.answer);
    });
    CLigneSelect* row = new CLigneSelect;
    row->AddParam(new CParam);
    client.Connexion(hCnx)->m_selectBuffer.AddLigne(row);
    for (const auto& k : cases) {
        SCOPED_TRACE(k.resultat);
        int resultat = -1;
        EXPECT_EQ(k.code, client.Execute(hCnx, L"UPDATE T SET A = 1", resultat));
        EXPECT_EQ(k.resultat, resultat);
        EXPECT_EQ(0, client.Connexion(hCnx)->m_selectBuffer.GetNbLigne()) << "rows emptied";
        ExpectConnexionFree();
    }
    EXPECT_EQ(5u, Requests().size());
}

// ---- Refusals before anything is sent ---------------------------------------------------------

TEST_F(ExecuteOn, RefusalsBeforeTheExchange) {
    Open(nullptr);
    LogUpTo(20);
    for (const wchar_t* empty : {L"", static_cast<const wchar_t*>(nullptr)}) {
        int resultat = -1;
        EXPECT_EQ(KVN_ERROR_PARAMETER, client.Execute(hCnx, empty, resultat));
        EXPECT_EQ(0, resultat);
    }
    int resultat = -1;
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.Execute(hCnx + 5, L"SELECT 1", resultat));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 2  "));

    // The client still reconnecting, or this connection down: refused, silent.
    int lines = debugger.CountContaining(L"Execute") + log.CountContaining(L"Execute");
    client.SetAllConnected(FALSE);
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.Execute(hCnx, L"SELECT 1", resultat));
    client.SetAllConnected(TRUE);
    client.Connexion(hCnx)->m_bConnected = FALSE;
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.Execute(hCnx, L"SELECT 1", resultat));
    EXPECT_EQ(-1, resultat);
    EXPECT_EQ(lines, debugger.CountContaining(L"Execute") + log.CountContaining(L"Execute"));

    client.Connexion(hCnx)->m_bConnected = TRUE;
    ExpectConnexionFree();
    EXPECT_TRUE(Requests().empty());
}

// ---- The exchange going wrong -----------------------------------------------------------------

TEST_F(ExecuteOn, AnAnswerThatNeverComesIsGivenUp) {
    Open([](Connection& c) {
        Message request = c.Expect(KVN_EXECUTE);
        c.Ack(request);
        // Answers only once the client gave up, then serves the next request.
        c.Await("given up");
        c.Answer(peer::Msg(KVN_EXECUTE, request.IdApplication(), request.IdConnexion(),
                           {Long(0), Long(1)}));
        Serve(c, KVN_EXISTTABLE, {Long(0), Long(1)});
    });
    LogUpTo(2);
    KvnSetAnswerWaitForTests(300);
    int resultat = -1;
    kvntest::Clock::time_point start = kvntest::Clock::now();
    EXPECT_EQ(KVN_ERROR_TIMEOUT, client.Execute(hCnx, L"UPDATE T SET A = 1", resultat));
    EXPECT_GE(kvntest::MsSince(start), 300 - kvntest::kTickSlackMs);
    EXPECT_EQ(-1, resultat);
    EXPECT_EQ(1, log.CountContaining(L"CKorvaneClient::Execute(): time-out resultat"));
    ExpectConnexionFree();

    // The late answer is stored like any other; the next request does not
    // take it for its own, and its answer wait counts from its own send (a
    // request that keeps the last send's flag, long after that send).
    CConnexionKorvane* cnx = client.Connexion(hCnx);
    service.Signal("given up");
    ASSERT_EQ(WAIT_OBJECT_0, KvnWaitForSingleObject(cnx->hEvtResultArrived, peer::kWaitMs));
    EXPECT_EQ(1, clienttest::Read(cnx->m_tabParam[0].valNum.lVal));
    KvnSleep(400);
    int existe = 0;
    EXPECT_EQ(KVN_NO_ERROR, client.IsTableExist(hCnx, L"T", existe));
    EXPECT_EQ(1, existe);
    KvnSetAnswerWaitForTests(0);
}

// A request that the service never acknowledges takes its connection down
// and declares the communication lost, which wakes every request in flight.
// Takes the real 10 s of the send wait: the failed send sets no event of its
// own, the caller learns of it when its wait ends.
TEST_F(ExecuteOn, AnUnacknowledgedRequestTakesTheLinkDownAndWakesTheOthers) {
    Open([](Connection& c) {
        c.Ack(c.Expect(KVN_EXECUTE));
        c.ExpectClientClose(15000);
    });
    service.OnAccept(2, ConnexionLink([](Connection& c) {
        c.Expect(KVN_EXECUTE);  // and never acknowledged
        c.ExpectClientClose(15000);
    }));
    int hCnx2 = client.GetConnexion();
    ASSERT_GT(hCnx2, hCnx);
    LogUpTo(4);

    int waiting = -1;
    int waitingResult = 1;
    std::thread caller([&] { waitingResult = client.Execute(hCnx, L"UPDATE T SET A = 1", waiting); });
    ASSERT_TRUE(ServiceHasARequest());
    int unacknowledged = -1;
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED,
              client.Execute(hCnx2, L"UPDATE T SET A = 2", unacknowledged));
    caller.join();

    EXPECT_EQ(-1, unacknowledged) << "a closed socket leaves resultat alone";
    EXPECT_EQ(1, debugger.Count(L"\r\nErreur de Send Message  "));
    EXPECT_EQ(WAIT_OBJECT_0, KvnWaitForSingleObject(client.GetEventPerteComm(), 0))
        << "the application is told that the communication is lost";
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, waitingResult);
    EXPECT_EQ(0, waiting);
    EXPECT_EQ(1, log.Count(L"CKorvaneClient::Execute(): perte de comm"));

    EXPECT_FALSE(client.IsConnexionConnected(hCnx));
    EXPECT_FALSE(client.IsConnexionConnected(hCnx2));
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.Execute(hCnx2, L"SELECT 1", unacknowledged));
    ExpectConnexionFree();
}

// ---- The frame, run directly ----------------------------------------------------------------

// The other variants (no reader, no answer) are seen through ExecuteRequete
// and LibereStatment.
TEST_F(ExecuteOn, TheFrameReadsTheAnswerUnderTheRequestLock) {
    Open([](Connection& c) { Serve(c, KVN_EXISTTABLE, {Long(0), Long(1)}); });
    CRequestFrame frame(&client, kFrameIsTableExist);
    bool lockedElsewhere = true;
    int r = frame.Run(
        hCnx, [](CMsgSocketClient& msg, CConnexionKorvane&) { return msg.CreateIsTableExist(L"T"); },
        [&](CConnexionKorvane& cnx) {
            lockedElsewhere = FreeElsewhere(cnx.mutexUseCnx);
            return cnx.m_tabParam[0].valNum.lVal == 1 ? 42 : -1;
        });
    EXPECT_EQ(42, r);
    EXPECT_EQ(KVN_FRAME_ANSWERED, frame.GetOutcome());
    EXPECT_FALSE(lockedElsewhere);
    ExpectConnexionFree();
}

// ---- Two operations on one connection ----------------------------------------------------------

// Takes the real 20 s of the request lock's limit.
TEST_F(ExecuteOn, ASecondOperationWaitsForTheLockThenGivesUp) {
    Open([](Connection& c) {
        Message request = c.Expect(KVN_EXECUTE);
        c.Ack(request);
        c.Await("second gave up", 30000);
        c.Answer(peer::Msg(KVN_EXECUTE, request.IdApplication(), request.IdConnexion(),
                           {Long(0), Long(5)}));
    });
    LogUpTo(15);
    int first = -1;
    int firstResult = 1;
    std::thread firstCaller([&] { firstResult = client.Execute(hCnx, L"UPDATE T SET A = 1", first); });
    // The first one holds the lock once the service has its request.
    ASSERT_TRUE(ServiceHasARequest());

    int second = -1;
    kvntest::Clock::time_point start = kvntest::Clock::now();
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.Execute(hCnx, L"UPDATE T SET A = 2", second));
    EXPECT_GE(kvntest::MsSince(start), 20000 - kvntest::kTickSlackMs);
    EXPECT_EQ(-1, second);
    // At log level 15 the log's own channel is the debugger output: the line
    // is seen there twice, once logged and once written directly.
    EXPECT_EQ(2, debugger.Count(L"CKorvaneClient::Execute mutexUseCnx.Lock() ABANDON"));

    service.Signal("second gave up");
    firstCaller.join();
    EXPECT_EQ(KVN_NO_ERROR, firstResult);
    EXPECT_EQ(5, first);
    EXPECT_EQ(1u, Requests().size()) << "the second request was never sent";
}

}  // namespace
