// A logical connection's own thread: the send step of the request hand-off,
// the socket closed by the service and re-opened under the same handle, and
// the end of the thread.
#include <atomic>
#include <memory>

#include <gtest/gtest.h>

#include "ClientProbe.h"
#include "support/ServiceSession.h"

namespace {

using kvntest::MsSince;
using peer::Connection;
using peer::Message;
using probe::IsSet;
using probe::WaitUntil;

// Serves one EXECUTE with value `value`.
void ServeExecute(Connection& c, int value) {
    Message request = c.Expect(KVN_EXECUTE);
    if (!request.complete) return;
    c.Ack(request);
    c.Answer(peer::Msg(KVN_EXECUTE, request.IdApplication(), request.IdConnexion(),
                       {peer::Long(0), peer::Long(value)}));
}

class ConnexionThread : public ::testing::Test {
protected:
    void TearDown() override {
        client.Free();
        service.WaitForScripts();
        service.Stop();
    }
    void OpenSession() {
        service.OnAccept(0, MainLink(SessionAnswer()));
        ASSERT_EQ(KVN_NO_ERROR, client.Open(service.Port(), nullptr, L"Threads"));
    }
    bool CommModified(DWORD ms = peer::kWaitMs) {
        return IsSet(client.GetEventCommModified(), ms);
    }
    bool Connected(int hCnx) {
        return WaitUntil([&] { return client.IsConnexionConnected(hCnx) != FALSE; });
    }

    probe::WinSock winsock_;
    peer::ScriptedPeer service;
    probe::Client client;
};

TEST_F(ConnexionThread, ASocketClosedByTheServiceIsReopenedWithTheSameHandleUntilAccepted) {
    OpenSession();
    // What the scripts record, shared with them: they may outlive a failed test.
    struct Record {
        const kvntest::Clock::time_point start = kvntest::Clock::now();
        std::atomic<long long> closedAt{0};
        std::atomic<long long> reopenedAt{0};
        std::atomic<int> reopenedHandle{0};
    };
    auto r = std::make_shared<Record>();
    service.OnAccept(1, [r](Connection& c) {
        AcceptConnexion(c);
        c.Await("close");
        r->closedAt = MsSince(r->start);
        c.Close();
    });
    service.OnAccept(2, [r](Connection& c) {
        r->reopenedAt = MsSince(r->start);
        // A refusal: a bare header with the service's code.
        Message request = c.Expect(KVN_REINIT_CONNEXION);
        c.Ack(request);
        c.Send(peer::Msg(KVN_ERROR_INIT_COMM, request.IdApplication(), request.IdConnexion()));
        c.ExpectClientClose();
    });
    service.OnAccept(3, [r](Connection& c) {
        r->reopenedHandle = AcceptConnexion(c, KVN_INIT_OK, true).IdConnexion();
        ServeExecute(c, 21);
        AcknowledgeUntilClose(c);
    });
    const int hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);
    EXPECT_EQ(2, client.NbConnected());
    while (CommModified(0)) {
    }

    service.Signal("close");
    ASSERT_TRUE(CommModified()) << "the close is reported";
    ASSERT_TRUE(WaitUntil([&] { return service.Accepted() == 4; })) << "tried again";
    ASSERT_TRUE(Connected(hCnx));
    EXPECT_TRUE(CommModified(0)) << "the re-opening is reported";
    // The script records the handle once its answer was acknowledged, which
    // may come after the client already counts the connection as up.
    ASSERT_TRUE(WaitUntil([&] { return r->reopenedHandle.load() != 0; }));
    EXPECT_EQ(hCnx, r->reopenedHandle.load());
    EXPECT_GE(r->reopenedAt - r->closedAt, 500 - kvntest::kTickSlackMs)
        << "the service is given time to let the old socket go";
    EXPECT_EQ(2, client.NbConnected());

    int resultat = 0;
    EXPECT_EQ(KVN_NO_ERROR, client.Execute(hCnx, L"UPDATE T SET A = 1", resultat));
    EXPECT_EQ(21, resultat);
}

// Marked down by a loss (here before its thread may even have reached its first
// wait), the connection closes its socket at once and re-opens only once the
// main link is back.
TEST_F(ConnexionThread, AfterALossTheConnexionWaitsForTheMainLink) {
    OpenSession();
    auto closed = std::make_shared<std::atomic<bool>>(false);
    service.OnAccept(1, [closed](Connection& c) {
        AcceptConnexion(c);
        *closed = c.ExpectClientClose();
    });
    service.OnAccept(2, [](Connection& c) {
        AcceptConnexion(c, KVN_INIT_OK, true);
        ServeExecute(c, 3);
        AcknowledgeUntilClose(c);
    });
    int hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);

    client.SetMainLink(false);
    ASSERT_TRUE(WaitUntil([&] { return closed->load(); }, 1000)) << "the socket is closed";
    int resultat = 0;
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.Execute(hCnx, L"SELECT 1", resultat));
    KvnSleep(300);
    EXPECT_EQ(2, service.Accepted()) << "no re-opening while the main link is down";

    client.SetMainLink(true);
    ASSERT_TRUE(Connected(hCnx));
    EXPECT_EQ(KVN_NO_ERROR, client.Execute(hCnx, L"SELECT 1", resultat));
    EXPECT_EQ(3, resultat);
}

TEST_F(ConnexionThread, AStopOfTheClientWinsOverTheCloseOfTheConnexion) {
    OpenSession();
    service.OnAccept(1, ConnexionLink());
    const int hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);
    CConnexionKorvane* cnx = client.Connexion(hCnx);
    while (CommModified(0)) {
    }

    KvnSetEvent(client.StopEvent());
    KvnSetEvent(cnx->m_hEvtFermeture);
    ASSERT_TRUE(IsSet(cnx->m_hThreadSockClient, peer::kWaitMs));
    EXPECT_FALSE(CommModified(0)) << "a stop reports no change of the connection";
    EXPECT_EQ(INVALID_SOCKET, cnx->m_sock.load());
    KvnResetEvent(client.StopEvent());
}

TEST(SendStep, ADownConnexionSendsNothingAndKeepsTheLastCode) {
    CParamComm comm;
    CConnexionKorvane cnx;
    CMsgSocketClient msg;
    msg.Init(7, 1, INVALID_SOCKET, &comm);
    ASSERT_EQ(0, msg.CreateExec(L"UPDATE T SET A = 1"));

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
