// Logical connections: opening them with the service, the handles they get,
// refusals and failed exchanges, freeing them one by one or all at once with
// Free.
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ClientProbe.h"
#include "support/ServiceSession.h"

namespace {

using kvntest::MsSince;
using peer::Connection;
using peer::Message;
using probe::IsSet;

// A service whose main link registers application 42; each later socket runs
// the script given for it, by default a connection that is accepted.
class Connexions : public ::testing::Test {
protected:
    void SetUp() override {
        SessionAnswer answer;
        answer.idApplication = 42;
        service_.OnAccept(0, MainLink(answer));
        service_.OnEveryAccept(ConnexionLink());
    }
    void Open() { ASSERT_EQ(KVN_NO_ERROR, client.Open(service_.Port())); }

    probe::WinSock winsock_;
    probe::Recorder log_;
    peer::ScriptedPeer service_;
    probe::Client client;
};

TEST_F(Connexions, HandlesAreGivenInOrderNeverReusedAndAllFreedByFreeAfterWhichNothingOpens) {
    // Shared with the script, which may outlive a failed test.
    auto firstClosed = std::make_shared<std::promise<void>>();
    std::future<void> firstClosedSeen = firstClosed->get_future();
    service_.OnAccept(1, [firstClosed](Connection& c) {
        AcceptConnexion(c);
        AcknowledgeUntilClose(c);
        firstClosed->set_value();
    });
    Open();

    EXPECT_EQ(1, client.GetConnexion());
    EXPECT_TRUE(IsSet(client.GetEventCommModified()));
    EXPECT_EQ(2, client.GetConnexion());
    EXPECT_TRUE(client.IsConnexionConnected(1));
    EXPECT_TRUE(client.IsConnexionConnected(2));

    while (IsSet(client.GetEventCommModified())) {
    }
    const auto start = kvntest::Clock::now();
    EXPECT_EQ(KVN_NO_ERROR, client.FreeConnexion(1));
    EXPECT_LT(MsSince(start), 1000) << "the thread ends as soon as it is asked";
    EXPECT_TRUE(IsSet(client.GetEventCommModified()));
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

    // Free with connections open closes every link and ends every thread.
    const auto freeing = kvntest::Clock::now();
    client.Free();
    EXPECT_LT(MsSince(freeing), 5000);
    EXPECT_TRUE(service_.WaitForScripts());
    EXPECT_EQ(0, client.NbRegistered());
    EXPECT_FALSE(client.IsAppliConnected());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.GetConnexion()) << "no session, no connection";
    EXPECT_EQ(std::wstring(L"Impossible de créer une connexion car l'application n'est pas "
                           L"connectée au service Korvane"),
              std::wstring(client.GetLastError()));
    EXPECT_EQ(1, log_.Count(L"ERREUR -2 getConnexion"));
    EXPECT_EQ(nullptr, client.m_GetLastConnexionList());
    EXPECT_EQ(4, service_.Accepted()) << "no connect after Free";
    client.Free();  // nothing to close, nothing to wait for
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
    g_logLevel = 3;

    const std::wstring unknownRefusal =
        L"Korvane a retourne une erreur inconnue lors de la connexion a Korvane";
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.GetConnexion());
    EXPECT_EQ(unknownRefusal, std::wstring(client.GetLastError()));
    EXPECT_EQ(KVN_ERROR_RECEIVE, client.GetConnexion());
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.GetConnexion());
    EXPECT_EQ(0, client.NbRegistered());

    EXPECT_EQ(1, client.GetConnexion());
    EXPECT_EQ(unknownRefusal, std::wstring(client.GetLastError()))
        << "a success does not clear the sentence of the last failure";
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

}  // namespace
