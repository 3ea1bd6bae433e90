// What the application is told about its link to the service: the events it
// waits on and the registered messages posted to its window, at the opening
// and the closing of a session and when the link is lost.
#include <memory>
#include <set>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>
#include <korvane/SockInit.h>
#include <korvane/platform/NotifyWindow.h>

#include "peer/ScriptedPeer.h"
#include "platform/Kernel.h"
#include "support/ServiceSession.h"

namespace {

// The client, with what the tests look at inside it.
class Client : public CKorvaneClient {
public:
    using CKorvaneClient::m_NotifyComLost;
    HANDLE PerteCommInterne() const { return m_hEvtPerteCommInterne; }
    HANDLE StopThreads() const { return m_hEvtStopThreads; }
    int NbConnected() const { return m_nNbConnected; }
    BOOL AllConnected() const { return m_bAllConnected; }
};

bool IsSet(HANDLE event) { return KvnWaitForSingleObject(event, 0) == WAIT_OBJECT_0; }

struct Posted {
    UINT msg = 0;
    WPARAM wParam = 1;
    LPARAM lParam = 1;
};

class Notifications : public ::testing::Test {
protected:
    void SetUp() override {
        SockInitWinSock();
        window_ = KvnCreateNotifyWindow();
        ASSERT_NE(nullptr, window_);
    }
    void TearDown() override {
        client_.reset();
        service_.Stop();
        KvnDestroyNotifyWindow(window_);
        SockCloseWinSock();
    }

    void Open() {
        service_.OnAccept(0, MainLink(SessionAnswer()));
        service_.OnEveryAccept(ConnexionLink());
        int dbType = 0;
        ASSERT_EQ(KVN_NO_ERROR, client_->Init(L"127.0.0.1", service_.Port(), 0, L"Compta", dbType,
                                              0, nullptr, window_));
    }

    // The next message posted to the window, or msg 0 when none comes soon.
    Posted Next(DWORD timeoutMs = 1000) {
        Posted p;
        if (!KvnWaitNotifyMessage(window_, timeoutMs, &p.msg, &p.wParam, &p.lParam)) p.msg = 0;
        return p;
    }
    void ExpectPosted(const wchar_t* name) {
        Posted p = Next();
        EXPECT_EQ(KvnRegisterWindowMessage(name), p.msg);
        EXPECT_EQ(0u, p.wParam);
        EXPECT_EQ(0, p.lParam);
    }
    void ExpectNothingPosted() { EXPECT_EQ(0u, Next(50).msg); }

    peer::ScriptedPeer service_;
    std::unique_ptr<Client> client_{new Client};
    HWND window_ = nullptr;
};

TEST_F(Notifications, EventsOfAFreshObjectAreValidAndNotSignalled) {
    Client& client = *client_;
    const HANDLE events[] = {client.GetEventPerteComm(),
                             client.GetEventCommOK(),
                             client.GetEventCommModified(),
                             client.GetEventHB(),
                             client.GetEventWarningFermetureForcee(),
                             client.GetEventFermetureForcee(),
                             client.GetEventKorvaneClosed(),
                             client.PerteCommInterne()};
    std::set<HANDLE> distinct;
    for (HANDLE h : events) {
        EXPECT_TRUE(KvnIsHandleOpen(h));
        EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), KvnWaitForSingleObject(h, 0));
        distinct.insert(h);
    }
    EXPECT_EQ(8u, distinct.size());
}

TEST_F(Notifications, SessionOpensWithCommOkAndClosesWithPerteComm) {
    Open();
    Client& client = *client_;
    ExpectPosted(KVN_MSG_COMM_OK);
    EXPECT_TRUE(IsSet(client.GetEventCommOK()));
    ExpectNothingPosted();

    ASSERT_EQ(1, client.GetConnexion());
    EXPECT_TRUE(IsSet(client.GetEventCommModified()));
    ExpectNothingPosted();

    client.Free();
    ExpectPosted(KVN_MSG_PERTE_COMM);
    EXPECT_TRUE(IsSet(client.GetEventPerteComm())) << "every link was up";
    EXPECT_FALSE(client.AllConnected());

    // A Free with no session open tells nothing.
    client.Free();
    ExpectNothingPosted();
    EXPECT_FALSE(IsSet(client.GetEventPerteComm()));
}

TEST_F(Notifications, LossTellsTheApplicationAndWakesTheRequests) {
    Open();
    Client& client = *client_;
    ASSERT_EQ(1, client.GetConnexion());
    ASSERT_EQ(2, client.GetConnexion());
    ExpectPosted(KVN_MSG_COMM_OK);
    KvnResetEvent(client.GetEventCommModified());

    client.m_NotifyComLost();
    ExpectPosted(KVN_MSG_PERTE_COMM);
    EXPECT_TRUE(IsSet(client.GetEventPerteComm()));
    EXPECT_TRUE(IsSet(client.PerteCommInterne()));
    EXPECT_TRUE(IsSet(client.GetEventCommModified()));
    EXPECT_FALSE(client.IsAppliConnected());
    EXPECT_FALSE(client.IsConnexionConnected(1));
    EXPECT_FALSE(client.IsConnexionConnected(2));
    EXPECT_EQ(0, client.NbConnected());
    EXPECT_FALSE(client.AllConnected());

    // No guard against a second report of the same loss: told again.
    client.m_NotifyComLost();
    ExpectPosted(KVN_MSG_PERTE_COMM);
    EXPECT_TRUE(IsSet(client.GetEventPerteComm()));
    EXPECT_TRUE(IsSet(client.PerteCommInterne()));

    // The main link was closed by the client.
    client_.reset();
    EXPECT_TRUE(service_.WaitForScripts());
    ExpectNothingPosted();  // Free found no session to close
}

TEST_F(Notifications, LossDuringShutdownLeavesTheConnexionsToIt) {
    Open();
    Client& client = *client_;
    ExpectPosted(KVN_MSG_COMM_OK);
    KvnResetEvent(client.GetEventCommModified());

    KvnSetEvent(client.StopThreads());
    client.m_NotifyComLost();
    EXPECT_FALSE(IsSet(client.GetEventCommModified())) << "connections not marked down";
    EXPECT_TRUE(IsSet(client.GetEventPerteComm()));
    ExpectPosted(KVN_MSG_PERTE_COMM);
    KvnResetEvent(client.StopThreads());
}

TEST_F(Notifications, RefusedSessionIsClosedWithoutPerteCommEvent) {
    service_.OnAccept(0, [](peer::Connection& c) {
        peer::Message m = c.Expect(KVN_INIT_APPLICATION);
        c.Ack(m);
        c.Answer(peer::Msg(KVN_INIT_APPLICATION, 0, 0, {peer::Long(KVN_ERROR_MAX_CLIENT_ATTEINT)}));
        c.ExpectClientClose();
    });
    int dbType = 0;
    ASSERT_EQ(KVN_ERROR_UNKNOWN, client_->Init(L"127.0.0.1", service_.Port(), 0, L"Compta",
                                               dbType, 0, nullptr, window_));
    ExpectNothingPosted();
    client_->Free();
    // The main socket was still open: the application is told it is gone,
    // but the links never were all up.
    ExpectPosted(KVN_MSG_PERTE_COMM);
    EXPECT_FALSE(IsSet(client_->GetEventPerteComm()));
    EXPECT_TRUE(service_.WaitForScripts());
}

}  // namespace
