// The application session: Init against a service that is missing, that a
// loader has to wake, that refuses or accepts the application; Free; and the
// texts of the result codes.
#include <cwchar>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ClientProbe.h"
#include "support/ServiceSession.h"

namespace {

using kvntest::MsSince;
using peer::Connection;
using peer::Message;
using probe::Client;

class Session : public ::testing::Test {
protected:
    probe::WinSock winsock_;
    probe::Recorder lines_;
};

const wchar_t kSleep1[] = L"\r\nCKorvaneClient::Init Sleep(5000)  (1)";
const wchar_t kSleep2[] = L"\r\nCKorvaneClient::Init Sleep(5000)    (2)";

std::wstring NotFound(unsigned short port) {
    return L"Impossible de trouver Korvane a l'adresse 127.0.0.1 port " + std::to_wstring(port);
}

TEST_F(Session, WithoutServiceInitTriesOnceAndAnUnreachableLoaderChangesNothing) {
    for (bool withLoader : {false, true}) {
        SCOPED_TRACE(withLoader);
        const unsigned short port = probe::ClosedPort();
        Client client;
        int dbType = -7;
        const auto start = kvntest::Clock::now();
        EXPECT_EQ(KVN_ERROR_UNKNOWN, client.Init(L"127.0.0.1", port,
                                                 withLoader ? probe::ClosedPort() : 0, L"Compta",
                                                 dbType, 0, nullptr, nullptr));
        // Below the pause that follows a failed attempt (a refused loopback
        // connect is immediate here, about 2 s on Windows, where the loader's
        // refused connect adds as much again: the absent pause lines decide).
        if (!withLoader) {
            EXPECT_LT(MsSince(start), 4900);
        }
        EXPECT_EQ(-7, dbType);
        EXPECT_EQ(NotFound(port), std::wstring(client.GetLastError()));
        EXPECT_FALSE(client.IsAppliConnected());
        EXPECT_EQ(0, lines_.Count(kSleep1) + lines_.Count(kSleep2)) << "no pause";
    }
}

// The one long test of the session: three attempts, each followed by the
// pause that lets a woken service start.
TEST_F(Session, LoaderIsWokenOnceThenInitTriesThreeTimes) {
    peer::ScriptedPeer loader;
    loader.OnAccept(0, [](Connection& c) {
        EXPECT_EQ("47 4F", peer::Hex(c.ReadRaw(2)));
        c.ExpectClientClose();
    });
    Client client;
    const auto start = kvntest::Clock::now();
    EXPECT_EQ(KVN_ERROR_UNKNOWN,
              client.Open(probe::ClosedPort(), nullptr, L"Compta", loader.Port()));
    EXPECT_GE(MsSince(start), 14900);
    EXPECT_LT(MsSince(start), 30000);
    loader.WaitForScripts();
    EXPECT_EQ(1, loader.Accepted());
    EXPECT_EQ(1, lines_.Count(kSleep1));
    EXPECT_EQ(2, lines_.Count(kSleep2));
}

TEST_F(Session, InitTakesTheServiceParametersOverAndASecondInitClosesTheFirstSession) {
    peer::ScriptedPeer service;
    SessionAnswer first;
    first.idApplication = 42;
    first.dbType = 3;
    SessionAnswer second;
    second.idApplication = 43;
    service.OnAccept(0, MainLink(first));
    service.OnAccept(1, MainLink(second));

    Client client;
    int dbType = -1;
    const std::wstring name(200, L'n');
    ASSERT_EQ(KVN_NO_ERROR, client.Init(L"127.0.0.1", service.Port(), 0, name.c_str(), dbType,
                                        0, nullptr, nullptr));
    EXPECT_EQ(3, dbType);
    EXPECT_EQ(3, client.GetDBType());
    EXPECT_EQ(42, client.IdApplication());
    EXPECT_TRUE(client.IsAppliConnected());
    wchar_t host[20] = L"";
    client.GetAdresseHost(host);
    EXPECT_STREQ(L"127.0.0.1", host);
    client.GetAdresseHost(nullptr);  // ignored

    ASSERT_EQ(KVN_NO_ERROR, client.Open(service.Port()));
    EXPECT_EQ(43, client.IdApplication());
    client.Free();
    EXPECT_FALSE(client.IsAppliConnected());
    service.WaitForScripts();  // both main links were closed

    const std::vector<Message> firstLink = service.Received(0);
    const std::vector<Message> secondLink = service.Received(1);
    ASSERT_EQ(2u, firstLink.size());
    ASSERT_EQ(2u, secondLink.size());
    EXPECT_EQ(KVN_INIT_APPLICATION, firstLink[0].Fonction());
    EXPECT_EQ(name.substr(0, 127), firstLink[0].Param(1).AsWide()) << "cut to 127 characters";
    EXPECT_EQ(KVN_CLOSE_APPLICATION, firstLink[1].Fonction());
    EXPECT_EQ(42, firstLink[1].IdApplication());
    EXPECT_LE(firstLink[1].at, secondLink[0].at) << "closed before the next opens";
    EXPECT_EQ(KVN_CLOSE_APPLICATION, secondLink[1].Fonction());
    EXPECT_EQ(43, secondLink[1].IdApplication());
}

// The acknowledgement of CLOSE_APPLICATION comes late, while the main socket's
// thread watches the socket too: it is Free's alone. Were the thread woken by
// it, one of the two would wait for bytes the other had taken (the thread for
// a whole message header, Free for its acknowledgement). Which of the two
// reads first is up to the scheduler: several rounds. Only where a socket can
// be lent (not on Windows, whose system records the socket's events for
// every waiter).
#if !defined(_WIN32)
TEST_F(Session, FreeTakesTheAcknowledgementOfItsCloseWithoutTheMainSocketsThread) {
    for (int round = 0; round < 20; ++round) {
        peer::ScriptedPeer service;
        service.OnAccept(0, MainLink(SessionAnswer(), [](Connection& c) {
            const Message close = c.Expect(KVN_CLOSE_APPLICATION);
            c.Delay(10);
            c.Ack(close);
            AcknowledgeUntilClose(c);
        }));
        Client client;
        ASSERT_EQ(KVN_NO_ERROR, client.Open(service.Port()));
        const kvntest::Clock::time_point start = kvntest::Clock::now();
        client.Free();
        EXPECT_LT(MsSince(start), 1000) << "round " << round;
        EXPECT_TRUE(service.WaitForScripts());
    }
}
#endif

// The first session's main thread is re-opening its link (it reads the host,
// the port and the name on every attempt) when Init opens another session
// elsewhere: nothing of the first session reaches the second service, and
// the thread read none of the new values (the thread sanitizer sees a read
// that is not ordered before Init's writes).
TEST_F(Session, ASecondInitLeavesTheFirstSessionsReopeningThreadItsOwnArguments) {
    peer::ScriptedPeer first, second;
    first.OnAccept(0, MainLink(SessionAnswer(), [](Connection& c) { c.Close(); }));
    // Every re-opening is turned away at once: the thread tries again.
    first.OnEveryAccept([](Connection& c) { c.Close(); });
    second.OnAccept(0, MainLink(SessionAnswer()));
    second.OnEveryAccept([](Connection& c) {
        ADD_FAILURE() << "the first session's thread reached the second service";
        c.Close();
    });
    Client client;
    ASSERT_EQ(KVN_NO_ERROR, client.Open(first.Port(), nullptr, L"Premiere"));
    ASSERT_TRUE(probe::WaitUntil([&] { return first.Accepted() >= 2; }, 10000))
        << "no re-opening";

    ASSERT_EQ(KVN_NO_ERROR, client.Open(second.Port(), nullptr, L"Seconde"));
    KvnSleep(200);
    client.Free();
    second.WaitForScripts();
    EXPECT_EQ(1, second.Accepted());
    const std::vector<Message> received = second.Received(0);
    ASSERT_FALSE(received.empty());
    EXPECT_EQ(L"Seconde", received[0].Param(1).AsWide());
}

TEST_F(Session, RefusedOrMalformedRegistrationFailsAndOnlyLevel3KeepsTheReason) {
    peer::ScriptedPeer service;
    service.OnEveryAccept(&probe::RefuseApplication);
    // An acceptance without application id.
    service.OnAccept(2, [](Connection& c) {
        Message m = c.Expect(KVN_INIT_APPLICATION);
        c.Ack(m);
        c.Answer(peer::Msg(KVN_INIT_OK, 0, 0, {peer::Long(0)}));
        c.ExpectClientClose();
    });
    Client client;
    const unsigned short closed = probe::ClosedPort();
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.Open(closed));

    // Below level 3 the detail is neither logged nor kept.
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.Open(service.Port()));
    EXPECT_EQ(NotFound(closed), std::wstring(client.GetLastError()));
    EXPECT_TRUE(client.IsAppliConnected()) << "the socket stays open until the next Free";

    g_logLevel = 3;
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.Open(service.Port()));
    const std::wstring refused =
        L"Korvane a refusé la connexion car le nombre maximum de clients simultanes est atteint";
    EXPECT_EQ(refused, std::wstring(client.GetLastError()));
    EXPECT_EQ(1, lines_.Count(L"ERREUR -54 Init: " + refused));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.GetConnexion()) << "no session after a refusal";

    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.Open(service.Port()));
    EXPECT_EQ(std::wstring(L"Korvane n'a pas retourné un message d'initialisation correct"),
              std::wstring(client.GetLastError()));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.GetConnexion());
    client.Free();
    EXPECT_FALSE(client.IsAppliConnected());
    service.WaitForScripts();
    // Nothing but the registrations: there was no application to close.
    for (int i = 0; i < 3; ++i) EXPECT_EQ(1u, service.Received(i).size()) << i;
}

TEST(ResultCodes, EveryCodeHasItsTextInEveryOverload) {
    struct Row {
        int code;
        const wchar_t* text;
    };
    const wchar_t* const unknown = L"An unknown error occured in database (Korvane) communication.";
    const wchar_t* const longest = L"Error in communication initialization : Korvane did not send a "
                                   L"valid number of parameters";
    const Row all[] = {
        {0, L"No Error found"},
        {-2, L"Unknown error"},
        {-51, L"Error while receiving socket message"},
        {-52, L"Error while sending socket message"},
        {-53, L"The database socket communication is closed"},
        {-54, L"Maximum number of database client is reached"},
        {-55, L"Unable to find the database server"},
        {-56, L"ODBC connexion creation failed"},
        {-57, L"Database communication initialization failed"},
        {-58, L"Invalid parameter in database communication"},
        {-59, L"Unable to find available database"},
        {-60, L"Unknown database error"},
        {-61, L"Error : Database ODBC statement is closed"},
        {-62, L"Error : Invalid Database handle parameter"},
        {-63, L"Database time-out error"},
        {-64, L"Invalid datatype in database communication (GetData())"},
        {-65, L"Unable to fin the required database table"},
        {-66, L"Database ODBC error"},
        {-68, longest},
        {-1, unknown}, {-3, unknown}, {-50, unknown}, {-67, unknown}, {-69, unknown},
        {1, unknown}, {5, unknown}, {KVN_NO_DATA, unknown}, {KVN_NULL_DATA, unknown},
    };
    Client client;
    for (const Row& row : all) {
        SCOPED_TRACE(row.code);
        DStr dstr(L"old");
        EXPECT_EQ(KVN_NO_ERROR, client.GetErrorTxt(row.code, dstr));
        EXPECT_EQ(std::wstring(row.text), std::wstring(dstr));
        CString cstr(L"old");
        EXPECT_EQ(KVN_NO_ERROR, client.GetErrorTxt(row.code, cstr));
        EXPECT_EQ(std::wstring(row.text), std::wstring(cstr));
        // The caller's buffer gets the text and one terminator, nothing more.
        wchar_t buffer[92];
        std::wmemset(buffer, L'#', 92);
        EXPECT_EQ(KVN_NO_ERROR, client.GetErrorTxt(row.code, buffer));
        EXPECT_EQ(std::wstring(row.text), std::wstring(buffer));
        for (size_t i = std::wcslen(row.text) + 1; i < 92; ++i) EXPECT_EQ(L'#', buffer[i]);
    }
    EXPECT_EQ(89u, std::wcslen(longest)) << "callers size their buffers for it";
    EXPECT_EQ(KVN_NO_ERROR, client.GetErrorTxt(-2, static_cast<wchar_t*>(nullptr)));
}

}  // namespace
