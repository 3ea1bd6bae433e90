// A logical connection's own thread: the send step of the request hand-off,
// the socket closed by the service and re-opened under the same handle, the
// wait for the main link after a loss, and the end of the thread.
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>
#include <korvane/KvnDefs.h>
#include <korvane/SockInit.h>

#include "client/CConnexionKorvane.h"
#include "client/ClientThreads.h"
#include "peer/ScriptedPeer.h"
#include "platform/DebugOutput.h"
#include "platform/Kernel.h"
#include "platform/Threads.h"
#include "support/ServiceSession.h"
#include "support/TestUtil.h"

namespace {

using peer::Connection;
using peer::Long;
using peer::Message;

// The client, with what the loss routine and the main link's thread would
// change within reach of the tests.
class ThreadClient : public CKorvaneClient {
public:
    CConnexionKorvane* Connexion(int hCnx) { return m_GetConnexionByIdList(hCnx); }
    int LinksUp() { return m_nNbConnected; }
    // What a loss of the main link does to the connections, without the main
    // link's own thread, which is not started here.
    void MainLinkDown() {
        m_bSockPrincipaleConnected = FALSE;
        m_DeconnecteAllConnexionList();
        m_SignaleLienPrincipal();
    }
    void MainLinkUp() {
        m_bSockPrincipaleConnected = TRUE;
        m_SignaleLienPrincipal();
    }
    HANDLE StopEvent() { return m_hEvtStopThreads; }
};

// Waits (bounded) until condition() holds.
template <class F>
bool WaitUntil(F condition, long long timeoutMs = peer::kWaitMs) {
    kvntest::Clock::time_point start = kvntest::Clock::now();
    while (!condition()) {
        if (kvntest::MsSince(start) > timeoutMs) return false;
        KvnSleep(5);
    }
    return true;
}

// Serves one EXECUTE with value `value`.
void ServeExecute(Connection& c, int value) {
    Message request = c.Expect(KVN_EXECUTE);
    if (!request.complete) return;
    c.Ack(request);
    c.Answer(peer::Msg(KVN_EXECUTE, request.IdApplication(), request.IdConnexion(),
                       {Long(0), Long(value)}));
}

class ConnexionThread : public ::testing::Test {
protected:
    void SetUp() override { SockInitWinSock(); }
    void TearDown() override {
        client.Free();
        service.WaitForScripts();
        service.Stop();
        SockCloseWinSock();
    }
    // Opens the session; the main link acknowledges until closed.
    void OpenSession() {
        service.OnAccept(0, MainLink(SessionAnswer()));
        int dbType = 0;
        ASSERT_EQ(KVN_NO_ERROR, client.Init(L"127.0.0.1", service.Port(), 0, L"Threads", dbType,
                                            0, nullptr, nullptr));
    }
    bool CommModified(DWORD ms = peer::kWaitMs) {
        return KvnWaitForSingleObject(client.GetEventCommModified(), ms) == WAIT_OBJECT_0;
    }
    void DrainCommModified() {
        while (KvnWaitForSingleObject(client.GetEventCommModified(), 0) == WAIT_OBJECT_0) {
        }
    }

    peer::ScriptedPeer service;
    ThreadClient client;
};

// ---- Re-opening ---------------------------------------------------------------------------

TEST_F(ConnexionThread, ASocketClosedByTheServiceIsReopenedWithTheSameHandle) {
    std::atomic<long long> closedAt{0};
    kvntest::Clock::time_point start = kvntest::Clock::now();
    OpenSession();
    service.OnAccept(1, [&](Connection& c) {
        AcceptConnexion(c);
        c.Await("close");
        closedAt = kvntest::MsSince(start);
        c.Close();
    });
    std::atomic<long long> reopenedAt{0};
    std::atomic<int> reopenedHandle{0};
    service.OnAccept(2, [&](Connection& c) {
        reopenedAt = kvntest::MsSince(start);
        Message request = AcceptConnexion(c, KVN_INIT_OK, true);
        reopenedHandle = request.IdConnexion();
        ServeExecute(c, 21);
        AcknowledgeUntilClose(c);
    });
    int hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);
    EXPECT_EQ(2, client.LinksUp());
    DrainCommModified();

    service.Signal("close");
    ASSERT_TRUE(CommModified()) << "the close is reported";
    ASSERT_TRUE(WaitUntil([&] { return client.IsConnexionConnected(hCnx) != FALSE; }));
    EXPECT_TRUE(CommModified(0)) << "the re-opening is reported";
    // The script records the handle once its answer was acknowledged, which
    // may come after the client already counts the connection as up.
    ASSERT_TRUE(WaitUntil([&] { return reopenedHandle.load() != 0; }));
    EXPECT_EQ(hCnx, reopenedHandle.load());
    EXPECT_GE(reopenedAt - closedAt, 500 - kvntest::kTickSlackMs)
        << "the service is given time to let the old socket go";
    EXPECT_EQ(2, client.LinksUp());

    int resultat = 0;
    EXPECT_EQ(KVN_NO_ERROR, client.Execute(hCnx, L"UPDATE T SET A = 1", resultat));
    EXPECT_EQ(21, resultat);
}

TEST_F(ConnexionThread, ARefusedReopeningIsTriedAgain) {
    OpenSession();
    service.OnAccept(1, [](Connection& c) {
        AcceptConnexion(c);
        c.Close();
    });
    service.OnAccept(2, [](Connection& c) {
        // A refusal: a bare header with the service's code.
        Message request = c.Expect(KVN_REINIT_CONNEXION);
        c.Ack(request);
        c.Send(peer::Msg(KVN_ERROR_INIT_COMM, request.IdApplication(), request.IdConnexion()));
        c.ExpectClientClose();
    });
    service.OnAccept(3, [](Connection& c) {
        AcceptConnexion(c, KVN_INIT_OK, true);
        AcknowledgeUntilClose(c);
    });
    int hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);
    ASSERT_TRUE(WaitUntil([&] { return service.Accepted() == 4; }));
    ASSERT_TRUE(WaitUntil([&] { return client.IsConnexionConnected(hCnx) != FALSE; }));
}

TEST_F(ConnexionThread, AfterALossTheConnexionWaitsForTheMainLink) {
    OpenSession();
    std::atomic<bool> closed{false};
    service.OnAccept(1, [&](Connection& c) {
        AcceptConnexion(c);
        closed = c.ExpectClientClose();
    });
    service.OnAccept(2, [](Connection& c) {
        AcceptConnexion(c, KVN_INIT_OK, true);
        ServeExecute(c, 3);
        AcknowledgeUntilClose(c);
    });
    int hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);

    client.MainLinkDown();
    ASSERT_TRUE(WaitUntil([&] { return closed.load(); })) << "the socket is closed";
    int resultat = 0;
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.Execute(hCnx, L"SELECT 1", resultat));
    KvnSleep(300);
    EXPECT_EQ(2, service.Accepted()) << "no re-opening while the main link is down";

    client.MainLinkUp();
    ASSERT_TRUE(WaitUntil([&] { return client.IsConnexionConnected(hCnx) != FALSE; }));
    EXPECT_EQ(KVN_NO_ERROR, client.Execute(hCnx, L"SELECT 1", resultat));
    EXPECT_EQ(3, resultat);
}

TEST_F(ConnexionThread, ConnexionsReopenOneAfterAnother) {
    OpenSession();
    struct Span {
        long long from, to;
    };
    // Shared with the scripts, which may outlive a failed test's locals.
    struct Record {
        std::mutex lock;
        std::vector<Span> spans;
    };
    auto record = std::make_shared<Record>();
    const kvntest::Clock::time_point start = kvntest::Clock::now();
    auto closing = [](Connection& c) {
        AcceptConnexion(c);
        c.Await("close");
        c.Close();
    };
    auto reopening = [record, start](Connection& c) {
        Message request = c.Expect(KVN_REINIT_CONNEXION);
        long long from = kvntest::MsSince(start);
        c.Ack(request);
        c.Delay(150);  // a slow service: the other connection must wait
        long long to = kvntest::MsSince(start);
        c.Answer(peer::Msg(KVN_INIT_OK, request.IdApplication(), request.IdConnexion()));
        {
            std::lock_guard<std::mutex> guard(record->lock);
            record->spans.push_back({from, to});
        }
        AcknowledgeUntilClose(c);
    };
    service.OnAccept(1, closing);
    service.OnAccept(2, closing);
    service.OnAccept(3, reopening);
    service.OnAccept(4, reopening);
    int h1 = client.GetConnexion();
    int h2 = client.GetConnexion();
    ASSERT_GT(h2, h1);

    service.Signal("close");
    ASSERT_TRUE(WaitUntil([&] { return service.Accepted() == 5; }));
    ASSERT_TRUE(WaitUntil([&] {
        return client.IsConnexionConnected(h1) && client.IsConnexionConnected(h2);
    }));
    // A script records its span after its answer went out, which may be after
    // the client already counts the connection as up.
    auto recorded = [&] {
        std::lock_guard<std::mutex> guard(record->lock);
        return record->spans.size();
    };
    ASSERT_TRUE(WaitUntil([&] { return recorded() == 2; }));
    std::lock_guard<std::mutex> guard(record->lock);
    const std::vector<Span>& spans = record->spans;
    const Span& a = spans[0].from < spans[1].from ? spans[0] : spans[1];
    const Span& b = spans[0].from < spans[1].from ? spans[1] : spans[0];
    EXPECT_GE(b.from, a.to) << "two connections re-opened at once";
}

// ---- The end of the thread --------------------------------------------------------------------

TEST_F(ConnexionThread, FreeConnexionEndsTheThreadAndClosesTheSocket) {
    OpenSession();
    std::atomic<bool> closed{false};
    service.OnAccept(1, [&](Connection& c) {
        AcceptConnexion(c);
        closed = c.ExpectClientClose();
    });
    int hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);
    DrainCommModified();

    kvntest::Clock::time_point start = kvntest::Clock::now();
    EXPECT_EQ(KVN_NO_ERROR, client.FreeConnexion(hCnx));
    EXPECT_LT(kvntest::MsSince(start), 1000) << "the thread ends as soon as it is asked";
    EXPECT_TRUE(CommModified(0));
    ASSERT_TRUE(WaitUntil([&] { return closed.load(); }));
    EXPECT_FALSE(client.IsConnexionConnected(hCnx));
}

TEST_F(ConnexionThread, AStopOfTheClientWinsOverTheCloseOfTheConnexion) {
    OpenSession();
    service.OnAccept(1, ConnexionLink());
    int hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);
    CConnexionKorvane* cnx = client.Connexion(hCnx);
    DrainCommModified();

    KvnSetEvent(client.StopEvent());
    KvnSetEvent(cnx->m_hEvtFermeture);
    ASSERT_EQ(WAIT_OBJECT_0, KvnWaitForSingleObject(cnx->m_hThreadSockClient, peer::kWaitMs));
    EXPECT_FALSE(CommModified(0)) << "a stop reports no change of the connection";
    EXPECT_EQ(INVALID_SOCKET, cnx->m_sock.load());
    KvnResetEvent(client.StopEvent());
}

TEST_F(ConnexionThread, FreeWithConnexionsOpenEndsEveryThread) {
    OpenSession();
    std::atomic<int> closed{0};
    auto link = [&](Connection& c) {
        AcceptConnexion(c);
        if (c.ExpectClientClose()) ++closed;
    };
    service.OnAccept(1, link);
    service.OnAccept(2, link);
    int h1 = client.GetConnexion();
    int h2 = client.GetConnexion();
    ASSERT_GT(h2, h1);

    kvntest::Clock::time_point start = kvntest::Clock::now();
    client.Free();
    EXPECT_LT(kvntest::MsSince(start), 5000);
    ASSERT_TRUE(WaitUntil([&] { return closed.load() == 2; }));
    int resultat = -1;
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.Execute(h1, L"SELECT 1", resultat));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.Execute(h2, L"SELECT 1", resultat));
    EXPECT_EQ(-1, resultat);
}

// ---- The send step --------------------------------------------------------------------------

class SendStep : public ::testing::Test {
protected:
    void SetUp() override {
        msg.Init(7, 1, INVALID_SOCKET, &comm);
        ASSERT_EQ(0, msg.CreateExec(L"UPDATE T SET A = 1"));
    }
    CParamComm comm;
    CConnexionKorvane cnx;
    CMsgSocketClient msg;
};

TEST_F(SendStep, ADownConnexionSendsNothingAndKeepsTheLastCode) {
    cnx.m_bConnected = FALSE;
    cnx.m_pMsgAEnvoyer = &msg;
    cnx.m_bMsgSended = TRUE;
    cnx.m_nCodeErreur = 1;
    EnvoiRequeteCnx(&cnx);
    EXPECT_EQ(FALSE, cnx.m_bMsgSended.load());
    EXPECT_EQ(1, cnx.m_nCodeErreur) << "the caller must decide by m_bMsgSended";

    cnx.m_bConnected = TRUE;
    cnx.m_pMsgAEnvoyer = nullptr;  // withdrawn before the thread ran
    cnx.m_bMsgSended = TRUE;
    EnvoiRequeteCnx(&cnx);
    EXPECT_EQ(FALSE, cnx.m_bMsgSended.load());
    EnvoiRequeteCnx(nullptr);
}

}  // namespace
