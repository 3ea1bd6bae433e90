// Logical connections: opening them with the service, the handles they get,
// refusals and failed exchanges, freeing them one by one or all at once with
// Free, and the count of links up that tells when the communication is whole.
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>
#include <korvane/SockInit.h>

#include "diag/Log.h"
#include "peer/ScriptedPeer.h"
#include "platform/Kernel.h"
#include "support/ServiceSession.h"

namespace {

using peer::Connection;
using peer::Message;

// The client, with what the tests look at inside it.
class Client : public CKorvaneClient {
public:
    using CKorvaneClient::m_GetLastConnexionList;
    using CKorvaneClient::m_IncConnected;
    using CKorvaneClient::m_NotifyComLost;
    int NbConnected() const { return m_nNbConnected; }
    BOOL AllConnected() const { return m_bAllConnected; }
    int NbRegistered() { return m_listConnexion.GetSize(); }
};

bool IsSet(HANDLE event) { return KvnWaitForSingleObject(event, 0) == WAIT_OBJECT_0; }

// Log lines of the trace channel (levels 1 to 4), in order.
struct Captured {
    std::mutex lock;
    std::vector<std::wstring> texts;

    static void Hook(const wchar_t* text, void* context) {
        Captured* self = static_cast<Captured*>(context);
        std::lock_guard<std::mutex> guard(self->lock);
        self->texts.push_back(text);
    }
    int Count(const std::wstring& text) {
        std::lock_guard<std::mutex> guard(lock);
        int n = 0;
        for (const std::wstring& t : texts) n += t == text ? 1 : 0;
        return n;
    }
};

const SessionAnswer kAnswer = [] {
    SessionAnswer a;
    a.idApplication = 42;
    return a;
}();

// A service whose main link registers the application; each later socket
// runs the script given for it, by default a connection that is accepted.
class Connexions : public ::testing::Test {
protected:
    void SetUp() override {
        SockInitWinSock();
        KvnSetTraceFileHook(&Captured::Hook, &log_);
        service_.OnAccept(0, MainLink(kAnswer));
        service_.OnEveryAccept(ConnexionLink());
    }
    void TearDown() override {
        client_.reset();
        service_.Stop();
        KvnSetTraceFileHook(nullptr, nullptr);
        KvnResetLogForTests();
        SockCloseWinSock();
    }

    void Open() {
        int dbType = 0;
        ASSERT_EQ(KVN_NO_ERROR, client_->Init(L"127.0.0.1", service_.Port(), 0, L"Compta", dbType,
                                              0, nullptr, nullptr));
    }

    peer::ScriptedPeer service_;
    std::unique_ptr<Client> client_{new Client};
    Captured log_;
};

// A connection's script that tells the test when the client has closed it.
peer::Script ConnexionLinkReportingClose(std::shared_ptr<std::promise<void>> closed) {
    return [closed](Connection& c) {
        AcceptConnexion(c);
        AcknowledgeUntilClose(c);
        closed->set_value();
    };
}

TEST_F(Connexions, HandlesAreGivenInOrderAndNeverReused) {
    auto firstClosed = std::make_shared<std::promise<void>>();
    std::future<void> firstClosedSeen = firstClosed->get_future();
    service_.OnAccept(1, ConnexionLinkReportingClose(firstClosed));
    Open();
    Client& client = *client_;

    EXPECT_EQ(1, client.GetConnexion());
    EXPECT_TRUE(IsSet(client.GetEventCommModified()));
    EXPECT_EQ(2, client.GetConnexion());
    EXPECT_TRUE(client.IsConnexionConnected(1));
    EXPECT_TRUE(client.IsConnexionConnected(2));

    EXPECT_EQ(KVN_NO_ERROR, client.FreeConnexion(1));
    EXPECT_EQ(std::future_status::ready, firstClosedSeen.wait_for(std::chrono::seconds(5)))
        << "the service sees the freed connection's socket close";
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.FreeConnexion(1));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.FreeConnexion(99));
    g_logLevel = 3;
    EXPECT_FALSE(client.IsConnexionConnected(1));
    EXPECT_EQ(1, log_.Count(L"CKorvaneClient::m_GetConnexionByIdList() connexion 1 introuvable  "
                            L"NbCnx=1    "));
    EXPECT_TRUE(client.IsConnexionConnected(2));
    EXPECT_EQ(1, client.NbRegistered());

    EXPECT_EQ(3, client.GetConnexion());
    EXPECT_TRUE(client.IsConnexionConnected(3));
    client.Free();
    service_.WaitForScripts();

    // Each connection was announced with the application's id and its handle.
    for (int index = 1; index <= 3; ++index) {
        std::vector<Message> got = service_.Received(index);
        ASSERT_FALSE(got.empty());
        EXPECT_EQ(KVN_INIT_CONNEXION, got[0].Fonction());
        EXPECT_EQ(42, got[0].IdApplication());
        EXPECT_EQ(index, got[0].IdConnexion());
    }
}

TEST_F(Connexions, RefusalsAndFailedExchangesConsumeNoHandle) {
    // A refusal the client cannot read as a code of its own.
    service_.OnAccept(1, [](Connection& c) {
        AcceptConnexion(c, KVN_CLOSE_CONNEXION);
        c.ExpectClientClose();
    });
    // An answer whose header no service would send: the client refuses it.
    service_.OnAccept(2, [](Connection& c) {
        Message m = c.Expect(KVN_INIT_CONNEXION);
        c.Ack(m);
        c.Send(peer::Msg(KVN_ERROR_INIT_COMM, m.IdApplication(), m.IdConnexion()));
        c.ExpectClientClose();
    });
    // A service that goes away without acknowledging.
    service_.OnAccept(3, [](Connection& c) {
        c.Expect(KVN_INIT_CONNEXION);
        c.Close();
    });
    Open();
    Client& client = *client_;
    g_logLevel = 3;

    const std::wstring unknownRefusal =
        L"Korvane a retourne une erreur inconnue lors de la connexion a Korvane";
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.GetConnexion());
    EXPECT_EQ(unknownRefusal, std::wstring(client.GetLastError()));
    EXPECT_EQ(KVN_ERROR_RECEIVE, client.GetConnexion());
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.GetConnexion());
    EXPECT_EQ(0, client.NbRegistered());

    EXPECT_EQ(1, client.GetConnexion());
    // A success does not clear the sentence of the last failure.
    EXPECT_EQ(unknownRefusal, std::wstring(client.GetLastError()));

    // The refusal is not logged; the failed exchanges are.
    EXPECT_EQ(0, log_.Count(L"ERREUR -2 getConnexion"));
    EXPECT_EQ(1, log_.Count(L"ERREUR -51 getConnexion"));
    EXPECT_EQ(1, log_.Count(L"ERREUR -53 getConnexion"));
    EXPECT_EQ(1, log_.Count(L"getConnexion OK, handle = 1"));

    client.Free();
    service_.WaitForScripts();
    for (int index = 1; index <= 4; ++index) {
        std::vector<Message> got = service_.Received(index);
        ASSERT_FALSE(got.empty());
        EXPECT_EQ(1, got[0].IdConnexion()) << "socket " << index;
    }
}

TEST_F(Connexions, NoConnexionWithoutSession) {
    const std::wstring noSession = L"Impossible de créer une connexion car l'application n'est "
                                   L"pas connectée au service Korvane";
    g_logLevel = 3;
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client_->GetConnexion());
    EXPECT_EQ(noSession, std::wstring(client_->GetLastError()));
    EXPECT_EQ(1, log_.Count(L"ERREUR -2 getConnexion"));
    EXPECT_EQ(nullptr, client_->m_GetLastConnexionList());
    EXPECT_FALSE(client_->IsConnexionConnected(1));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client_->FreeConnexion(1));
    EXPECT_EQ(0, service_.Accepted());
}

TEST_F(Connexions, FreeClosesTheSessionAndEveryConnexion) {
    Open();
    Client& client = *client_;
    ASSERT_EQ(1, client.GetConnexion());
    ASSERT_EQ(2, client.GetConnexion());

    const auto start = peer::Clock::now();
    client.Free();
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(peer::Clock::now() - start)
                  .count(),
              5000);
    // Every script ends once its socket is closed by the client.
    EXPECT_TRUE(service_.WaitForScripts());
    EXPECT_EQ(KVN_CLOSE_APPLICATION, service_.Received(0).back().Fonction());
    EXPECT_EQ(0, client.NbRegistered());
    EXPECT_FALSE(client.IsConnexionConnected(1));
    EXPECT_FALSE(client.IsAppliConnected());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.GetConnexion());
    EXPECT_EQ(3, service_.Accepted()) << "no connect after Free";
}

TEST_F(Connexions, CommOkIsSetWhenEveryLinkIsUp) {
    service_.OnAccept(3, MainLink(kAnswer));
    Open();
    Client& client = *client_;
    // The main link alone is every link.
    EXPECT_TRUE(IsSet(client.GetEventCommOK()));
    EXPECT_TRUE(client.AllConnected());
    ASSERT_EQ(1, client.GetConnexion());
    ASSERT_EQ(2, client.GetConnexion());
    EXPECT_EQ(3, client.NbConnected());
    EXPECT_FALSE(IsSet(client.GetEventCommOK())) << "already all up: not told again";

    // A new session after Free starts counting again from nothing.
    client.Free();
    EXPECT_EQ(0, client.NbConnected());
    EXPECT_FALSE(client.AllConnected());
    Open();
    EXPECT_TRUE(IsSet(client.GetEventCommOK()));
    EXPECT_TRUE(client.AllConnected());
    EXPECT_EQ(1, client.NbConnected());
    ASSERT_EQ(3, client.GetConnexion());
    ASSERT_EQ(4, client.GetConnexion());

    // After a loss the count restarts; the links come back one by one and
    // the last one missing completes the communication.
    client.m_NotifyComLost();
    EXPECT_EQ(0, client.NbConnected());
    EXPECT_FALSE(client.AllConnected());
    client.m_IncConnected();  // the main link
    client.m_IncConnected();  // the first connection
    EXPECT_FALSE(IsSet(client.GetEventCommOK()));
    EXPECT_FALSE(client.AllConnected());
    client.m_IncConnected();  // the second: 2 entries plus the main link
    EXPECT_TRUE(IsSet(client.GetEventCommOK()));
    EXPECT_TRUE(client.AllConnected());
}

}  // namespace
