// The application session: Init against a service that is missing, that a
// loader has to wake, that refuses or accepts the application; Free; the
// accessors; and the texts of the result codes.
#include <chrono>
#include <cwchar>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>
#include <korvane/SockInit.h>
#include <korvane/platform/NotifyWindow.h>

#include "diag/Log.h"
#include "peer/ScriptedPeer.h"
#include "platform/DebugOutput.h"
#include "platform/Kernel.h"
#include "support/ServiceSession.h"

namespace {

using peer::Connection;
using peer::Message;

long MsSince(peer::Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(peer::Clock::now() - start).count());
}

// The client, with what the tests look at inside it.
class Client : public CKorvaneClient {
public:
    int IdApplication() { return m_GetIdApplication(); }
    const CParamComm& ParamComm() const { return m_paramComm; }
};

// A loopback port on which nothing listens: connects to it are refused at once.
unsigned short ClosedPort() {
    peer::ScriptedPeer gone;
    unsigned short port = gone.Port();
    gone.Stop();
    return port;
}

// Texts handed to the debugger output or the trace file, in order.
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

class Session : public ::testing::Test {
protected:
    void SetUp() override {
        SockInitWinSock();
        KvnSetDebugOutputHook(&Captured::Hook, &debugger_);
        KvnSetTraceFileHook(&Captured::Hook, &log_);
    }
    void TearDown() override {
        KvnSetDebugOutputHook(nullptr, nullptr);
        KvnSetTraceFileHook(nullptr, nullptr);
        KvnResetLogForTests();
        SockCloseWinSock();
    }

    int Init(Client& client, unsigned short port, int portLoader = 0, const wchar_t* name = L"Compta",
             HWND hWnd = nullptr) {
        int dbType = -1;
        return client.Init(L"127.0.0.1", port, portLoader, name, dbType, 0, nullptr, hWnd);
    }

    Captured debugger_;
    Captured log_;
};

const wchar_t kSleep1[] = L"\r\nCKorvaneClient::Init Sleep(5000)  (1)";
const wchar_t kSleep2[] = L"\r\nCKorvaneClient::Init Sleep(5000)    (2)";

std::wstring NotFound(unsigned short port) {
    return L"Impossible de trouver Korvane a l'adresse 127.0.0.1 port " + std::to_wstring(port);
}

// ---- A service that is not there ----------------------------------------------------------

TEST_F(Session, WithoutServiceOrLoaderInitTriesOnceAndDoesNotPause) {
    const unsigned short port = ClosedPort();
    Client client;
    int dbType = -7;
    const auto start = peer::Clock::now();
    EXPECT_EQ(KVN_ERROR_UNKNOWN,
              client.Init(L"127.0.0.1", port, 0, L"Compta", dbType, 0, nullptr, nullptr));
    // Below the pause that follows a failed attempt (a refused loopback
    // connect is immediate here, about 2 s on Windows).
    EXPECT_LT(MsSince(start), 4900);
    EXPECT_EQ(-7, dbType);
    EXPECT_EQ(NotFound(port), std::wstring(client.GetLastError()));
    EXPECT_FALSE(client.IsAppliConnected());
    EXPECT_EQ(0, debugger_.Count(kSleep1) + debugger_.Count(kSleep2));
}

TEST_F(Session, LoaderThatCannotBeReachedEndsTheAttemptsAtOnce) {
    const unsigned short port = ClosedPort();
    const unsigned short loaderPort = ClosedPort();
    Client client;
    EXPECT_EQ(KVN_ERROR_UNKNOWN, Init(client, port, loaderPort));
    EXPECT_EQ(0, debugger_.Count(kSleep1) + debugger_.Count(kSleep2)) << "no pause";
    EXPECT_EQ(NotFound(port), std::wstring(client.GetLastError()));
}

// The one long test of the session: three attempts, each followed by the
// pause that lets a woken service start.
TEST_F(Session, LoaderIsWokenOnceThenInitTriesThreeTimes) {
    peer::ScriptedPeer loader;
    loader.OnAccept(0, [](Connection& c) {
        peer::Bytes go = c.ReadRaw(2);
        EXPECT_EQ("47 4F", peer::Hex(go));
        c.ExpectClientClose();
    });
    const unsigned short port = ClosedPort();
    Client client;
    const auto start = peer::Clock::now();
    EXPECT_EQ(KVN_ERROR_UNKNOWN, Init(client, port, loader.Port()));
    const long elapsed = MsSince(start);
    EXPECT_GE(elapsed, 14900);
    EXPECT_LT(elapsed, 30000);
    loader.WaitForScripts();
    EXPECT_EQ(1, loader.Accepted());
    EXPECT_EQ(1, debugger_.Count(kSleep1));
    EXPECT_EQ(2, debugger_.Count(kSleep2));
}

// ---- A service that answers ----------------------------------------------------------------

TEST_F(Session, InitRegistersTheApplicationAndTakesTheServiceParametersOver) {
    peer::ScriptedPeer service;
    SessionAnswer answer;
    answer.idApplication = 42;
    answer.dbType = 3;
    answer.timeOutConnect = 2500;
    answer.nbRetrySend = 3;
    answer.timeOutAck = 700;
    service.OnAccept(0, MainLink(answer));

    Client client;
    int dbType = -1;
    ASSERT_EQ(KVN_NO_ERROR, client.Init(L"127.0.0.1", service.Port(), 0, L"Compta", dbType, 0,
                                        nullptr, nullptr));
    EXPECT_EQ(3, dbType);
    EXPECT_EQ(3, client.GetDBType());
    EXPECT_EQ(42, client.IdApplication());
    EXPECT_TRUE(client.IsAppliConnected());
    EXPECT_EQ(service.Port(), client.GetPortHost());
    EXPECT_EQ(2500, client.ParamComm().nTimeOutConnect);
    EXPECT_EQ(3, client.ParamComm().nNbRetrySend);
    EXPECT_EQ(700, client.ParamComm().nTimeOutAck);
    wchar_t host[20] = L"";
    client.GetAdresseHost(host);
    EXPECT_STREQ(L"127.0.0.1", host);

    client.Free();
    EXPECT_FALSE(client.IsAppliConnected());
    service.WaitForScripts();  // the main link was closed
    std::vector<Message> got = service.Received(0);
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(KVN_INIT_APPLICATION, got[0].Fonction());
    EXPECT_EQ(L"Compta", got[0].Param(1).AsWide());
    EXPECT_EQ(KVN_CLOSE_APPLICATION, got[1].Fonction());
    EXPECT_EQ(42, got[1].IdApplication());
}

TEST_F(Session, ALongApplicationNameIsCutTo127Characters) {
    peer::ScriptedPeer service;
    service.OnAccept(0, MainLink(SessionAnswer()));
    const std::wstring name(200, L'n');
    Client client;
    ASSERT_EQ(KVN_NO_ERROR, Init(client, service.Port(), 0, name.c_str()));
    client.Free();
    service.WaitForScripts();
    EXPECT_EQ(name.substr(0, 127), service.Received(0).at(0).Param(1).AsWide());
}

TEST_F(Session, SecondInitClosesTheFirstSessionBeforeOpeningTheNext) {
    peer::ScriptedPeer service;
    SessionAnswer first;
    first.idApplication = 42;
    SessionAnswer second;
    second.idApplication = 43;
    service.OnAccept(0, MainLink(first));
    service.OnAccept(1, MainLink(second));

    Client client;
    ASSERT_EQ(KVN_NO_ERROR, Init(client, service.Port()));
    ASSERT_EQ(KVN_NO_ERROR, Init(client, service.Port()));
    EXPECT_EQ(43, client.IdApplication());
    client.Free();
    service.WaitForScripts();

    std::vector<Message> firstLink = service.Received(0);
    std::vector<Message> secondLink = service.Received(1);
    ASSERT_EQ(2u, firstLink.size());
    ASSERT_FALSE(secondLink.empty());
    EXPECT_EQ(KVN_CLOSE_APPLICATION, firstLink[1].Fonction());
    EXPECT_EQ(42, firstLink[1].IdApplication());
    EXPECT_LE(firstLink[1].at, secondLink[0].at);
}

// ---- A service that refuses ------------------------------------------------------------------

// The service turns the application away with one value, the reason.
void RefuseApplication(Connection& c) {
    Message m = c.Expect(KVN_INIT_APPLICATION);
    if (!m.complete) return;
    c.Ack(m);
    c.Answer(peer::Msg(KVN_INIT_APPLICATION, 0, 0, {peer::Long(KVN_ERROR_MAX_CLIENT_ATTEINT)}));
    c.ExpectClientClose();
}

TEST_F(Session, RefusalReachesTheLastErrorOnlyWhenLoggingAtLevel3) {
    peer::ScriptedPeer service;
    service.OnEveryAccept(&RefuseApplication);
    Client client;

    const unsigned short closed = ClosedPort();
    EXPECT_EQ(KVN_ERROR_UNKNOWN, Init(client, closed));

    // Below level 3 the detail is neither logged nor kept.
    EXPECT_EQ(KVN_ERROR_UNKNOWN, Init(client, service.Port()));
    EXPECT_EQ(NotFound(closed), std::wstring(client.GetLastError()));
    EXPECT_TRUE(client.IsAppliConnected()) << "the socket stays open until the next Free";

    g_logLevel = 3;
    EXPECT_EQ(KVN_ERROR_UNKNOWN, Init(client, service.Port()));
    const std::wstring refused =
        L"Korvane a refusé la connexion car le nombre maximum de clients simultanes est atteint";
    EXPECT_EQ(refused, std::wstring(client.GetLastError()));
    EXPECT_EQ(1, log_.Count(L"ERREUR -54 Init: " + refused));

    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.GetConnexion()) << "no session after a refusal";
    client.Free();
    EXPECT_FALSE(client.IsAppliConnected());
    service.WaitForScripts();
    // Nothing but the registrations: there was no application to close.
    EXPECT_EQ(1u, service.Received(0).size());
    EXPECT_EQ(1u, service.Received(1).size());
}

TEST_F(Session, AcceptanceWithoutApplicationIdIsAMalformedAnswer) {
    peer::ScriptedPeer service;
    service.OnAccept(0, [](Connection& c) {
        Message m = c.Expect(KVN_INIT_APPLICATION);
        c.Ack(m);
        c.Answer(peer::Msg(KVN_INIT_OK, 0, 0, {peer::Long(0)}));
        c.ExpectClientClose();
    });
    g_logLevel = 3;
    Client client;
    EXPECT_EQ(KVN_ERROR_UNKNOWN, Init(client, service.Port()));
    EXPECT_EQ(std::wstring(L"Korvane n'a pas retourné un message d'initialisation correct"),
              std::wstring(client.GetLastError()));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.GetConnexion());
    client.Free();
    service.WaitForScripts();
}

// ---- Accessors of an object without session -----------------------------------------------------

TEST_F(Session, ObjectWithoutSessionKeepsItsDefaultsAndCanBeDestroyed) {
    Client client;
    wchar_t host[20] = L"unchanged";
    client.GetAdresseHost(nullptr);
    client.GetAdresseHost(host);
    EXPECT_STREQ(L"127.0.0.1", host);
    EXPECT_EQ(5151, client.GetPortHost());
    EXPECT_FALSE(client.IsAppliConnected());
    EXPECT_EQ(std::wstring(), std::wstring(client.GetLastError()));
    EXPECT_EQ(3000, client.ParamComm().nTimeOutConnect);
    client.Free();  // nothing to close, nothing to wait for
}

// ---- Result codes -------------------------------------------------------------------------------

TEST(ResultCodes, EveryCodeHasItsTextInEveryOverload) {
    struct Row {
        int code;
        const wchar_t* text;
    };
    const Row rows[] = {
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
        {-68, L"Error in communication initialization : Korvane did not send a valid number of "
              L"parameters"},
    };
    const wchar_t* unknown = L"An unknown error occured in database (Korvane) communication.";
    std::vector<Row> all(std::begin(rows), std::end(rows));
    for (int code : {-1, -3, -50, -67, -69, 1, 5, KVN_NO_DATA, KVN_NULL_DATA}) {
        all.push_back({code, unknown});
    }

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
        const size_t n = std::wcslen(row.text);
        EXPECT_EQ(std::wstring(row.text), std::wstring(buffer));
        for (size_t i = n + 1; i < 92; ++i) EXPECT_EQ(L'#', buffer[i]);
    }
    EXPECT_EQ(89u, std::wcslen(rows[18].text)) << "callers size their buffers for it";
    EXPECT_EQ(KVN_NO_ERROR, client.GetErrorTxt(-2, static_cast<wchar_t*>(nullptr)));
}

}  // namespace
