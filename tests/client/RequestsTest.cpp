// The client's requests on the wire: the registration of the application and
// of its connections with what the service answers, the close, and every
// database request builder, each checked by the test service's own decoder.
#include <cstring>
#include <cwchar>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CMsgSocketClient.h>

#include "ClientTestUtil.h"
#include "platform/SystemInfo.h"
#include "support/ServiceSession.h"
#include "support/TestUtil.h"

namespace {

using peer::Connection;
using peer::Message;

std::wstring ComputerName() {
    wchar_t name[1024];
    DWORD size = 1024;
    return KvnGetComputerName(name, &size) ? std::wstring(name) : std::wstring(L"Unknow");
}

// Makes the computer's name unavailable for the life of the object.
struct NoComputerName {
    NoComputerName() { KvnSetComputerNameFailure(TRUE); }
    ~NoComputerName() { KvnSetComputerNameFailure(FALSE); }
};

// A service answer that is not the default one in any word.
const SessionAnswer kDistinct = {4242, 1500, 5, 47001, 1, L"239.1.2.3", 33, 4, 2500, 700, 3};

// Each Open gives a new request object, registered as the test says, on a new
// link to the service; the service's scripts are set before it.
class Requests : public clienttest::WireTest {
protected:
    CMsgSocketClient& Open(int idApplication, int idConnexion, peer::Script script) {
        SOCKET s = Connect(std::move(script));
        msg.reset(new CMsgSocketClient);
        msg->Init(idApplication, idConnexion, s, &comm);
        return *msg;
    }
    // The ten words of `a` were taken over (and the id and database type).
    void ExpectTakenOver(const SessionAnswer& a) {
        CParamComm got;
        msg->GetParamComm(&got);
        EXPECT_EQ(a.idApplication, msg->GetIdApplication());
        EXPECT_EQ(a.dbType, msg->GetDBType());
        EXPECT_EQ(a.periodeHB, got.nPeriodeHB);
        EXPECT_EQ(a.nbPeriodeHB, got.nNbPeriodeHB);
        EXPECT_EQ(a.portHB, got.nPortHB);
        EXPECT_EQ(a.multicastHB, got.bMulticastHB);
        EXPECT_EQ(a.adresseHB, std::wstring(got.szAdresseHB));
        EXPECT_EQ(a.param3, got.nParam3);
        EXPECT_EQ(a.nbRetrySend, got.nNbRetrySend);
        EXPECT_EQ(a.timeOutConnect, got.nTimeOutConnect);
        EXPECT_EQ(a.timeOutAck, got.nTimeOutAck);
        EXPECT_EQ(comm.nReserved, got.nReserved) << "the unused word is left alone";
    }

    CParamComm comm;  // the client's defaults unless a test says otherwise
    std::unique_ptr<CMsgSocketClient> msg;
};

// ---- INIT_APPLICATION and REINIT_APPLICATION ------------------------------------------------

TEST_F(Requests, InitApplicationNamesTheComputerAndTakesTheTenAnswerWordsButOneOfTheWrongType) {
    auto init = [this](const wchar_t* name, const peer::Value& computer,
                       const peer::Value& application, const Message& answer) {
        Message expected =
            peer::Msg(KVN_INIT_APPLICATION, 0, 0, {computer, application, peer::Long(1)});
        Open(0, 0, [expected, answer](Connection& c) {
            c.Ack(c.ExpectMessage(expected));
            c.Answer(answer);
        });
        EXPECT_EQ(0, msg->SendInitApplication(name));
        Finish();
    };
    const SessionAnswer a = kDistinct;
    comm.nReserved = 1234;
    const wchar_t* name = L"Caisse \u00e9t\u00e9";
    init(name, peer::Text(ComputerName().c_str()), peer::Text(name), InitApplicationAnswer(a));
    ExpectTakenOver(a);
    // The session is open: the object builds requests with the new id.
    EXPECT_EQ(0, msg->CreateFetch());
    EXPECT_EQ(4242, msg->CMsgSocket::GetIdApplication());

    // Without the computer's name or an application name: "Unknow" and NULL
    // are sent. The answer's seventh word, a text, is skipped.
    Message answer = InitApplicationAnswer(a);
    answer.params[6] = peer::Text(L"9");
    NoComputerName noName;
    init(L"", peer::Text(L"Unknow"), peer::NullOf(peer::kTypeWChar), answer);
    SessionAnswer skipped = a;
    skipped.nbRetrySend = comm.nNbRetrySend;
    ExpectTakenOver(skipped);
}

TEST_F(Requests, AFailedInitApplicationGivesItsCodeAndLeavesTheObjectClosed) {
    Message nineWords = InitApplicationAnswer(kDistinct);
    nineWords.params.pop_back();
    peer::Header implausible;
    implausible.fonction = 2;
    const struct {
        const char* what;
        bool acknowledged;
        peer::Bytes reply;  // what the service sends then; nothing: it stays silent
        int code;
        long long atLeastMs;
    } cases[] = {
        {"refused with one value", true,
         peer::Encode(peer::Msg(KVN_INIT_APPLICATION, 0, 0,
                                {peer::Long(KVN_ERROR_MAX_CLIENT_ATTEINT)})),
         KVN_ERROR_MAX_CLIENT_ATTEINT, 0},
        {"nine words", true, peer::Encode(nineWords), KVN_ERROR_INIT_NB_PARAM, 0},
        {"an implausible answer", true, peer::EncodeHeader(implausible), KVN_ERROR_RECEIVE, 0},
        {"no acknowledgement", false, {}, KVN_ERROR_SOCKET_CLOSED, 0},
        {"no answer: after the header wait", true, {}, KVN_ERROR_INIT_NB_PARAM, 1900},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        const bool acknowledged = k.acknowledged;
        const peer::Bytes reply = k.reply;
        comm.nTimeOutAck = acknowledged ? 1000 : 50;
        Open(0, 0, [acknowledged, reply](Connection& c) {
            Message m = c.Expect(KVN_INIT_APPLICATION);
            if (acknowledged) c.Ack(m);
            if (reply.empty()) {
                c.ExpectSilence(2500);
                return;
            }
            c.SendRaw(reply);
            // An answer is acknowledged (1), the bare implausible header refused (0).
            peer::Bytes back = c.ReadRaw(peer::kHeaderSize);
            ASSERT_EQ(peer::kHeaderSize, back.size());
            EXPECT_EQ(reply.size() > peer::kHeaderSize ? 1 : 0, back[6]);
        });
        kvntest::Clock::time_point start = kvntest::Clock::now();
        EXPECT_EQ(k.code, msg->SendInitApplication(L"Caisse"));
        EXPECT_GE(kvntest::MsSince(start), k.atLeastMs);
        Finish();
        EXPECT_EQ(KVN_ERROR_UNKNOWN, msg->CreateExec(L"SELECT 1"));
    }
}

TEST_F(Requests, ReInitSendsTheNameOnlyIfGivenAndTakesTheAnswersIdEvenWhenRefused) {
    SessionAnswer a = kDistinct;
    a.idApplication = 77;
    Message expected = peer::Msg(KVN_REINIT_APPLICATION, 5, 0,
                                 {peer::Text(ComputerName().c_str()), peer::Long(1)});
    Open(5, 0, [expected, a](Connection& c) {
        c.Ack(c.ExpectMessage(expected));
        c.Answer(InitApplicationAnswer(a));
    });
    EXPECT_EQ(0, msg->SendReInitApplication(L""));
    Finish();
    ExpectTakenOver(a);
    EXPECT_EQ(0, msg->CreateFetch());

    expected = peer::Msg(KVN_REINIT_APPLICATION, 5, 0,
                         {peer::Text(ComputerName().c_str()), peer::Text(L"Caisse"), peer::Long(1)});
    Open(5, 0, [expected](Connection& c) {
        c.Ack(c.ExpectMessage(expected));
        c.Answer(peer::Msg(KVN_DECONNEXION, 6, 0, {peer::Long(KVN_ERROR_MAX_CLIENT_ATTEINT)}));
    });
    EXPECT_EQ(KVN_DECONNEXION, msg->SendReInitApplication(L"Caisse"));
    Finish();
    EXPECT_EQ(6, msg->GetIdApplication());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, msg->CreateFetch()) << "the application is not registered";
}

// ---- INIT_CONNEXION and REINIT_CONNEXION ----------------------------------------------------

TEST_F(Requests, ConnexionRequestsAcceptedRefusedOrUnanswered) {
    for (int code : {KVN_INIT_CONNEXION, KVN_REINIT_CONNEXION}) {
        for (bool accept : {true, false}) {
            SCOPED_TRACE(std::to_string(code) + (accept ? " accepted" : " refused"));
            Open(7, 3, [code, accept](Connection& c) {
                c.Ack(c.ExpectMessage(peer::Msg(code, 7, 3)));
                c.Answer(accept ? peer::Msg(KVN_INIT_OK, 7, 3)
                                : peer::Msg(code, 7, 3, {peer::Long(KVN_ERROR_ODBC_CONNEXION)}));
            });
            int r = code == KVN_INIT_CONNEXION ? msg->SendInitConnexion()
                                               : msg->SendReInitConnexion();
            EXPECT_EQ(accept ? 0 : code, r);
            Finish();
        }
    }
    // Unanswered: -1 after the header wait.
    Open(7, 3, [](Connection& c) {
        c.Ack(c.Expect(KVN_INIT_CONNEXION));
        c.ExpectSilence(2500);
    });
    EXPECT_EQ(-1, msg->SendInitConnexion());
    Finish();
}

// ---- CLOSE_APPLICATION ----------------------------------------------------------------------

TEST_F(Requests, CloseApplicationWaitsOnly100MsForItsAcknowledgement) {
    comm.nTimeOutAck = 5000;  // not what this request waits
    Open(7, 0, [](Connection& c) {
        Message m = c.Expect(KVN_CLOSE_APPLICATION);
        c.Delay(150);
        c.Ack(m);
    });
    kvntest::Clock::time_point start = kvntest::Clock::now();
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, msg->SendCloseApplication());
    long long waited = kvntest::MsSince(start);
    EXPECT_GE(waited, 90);
    EXPECT_LT(waited, 1000);
    Finish();
}

// ---- Database request builders --------------------------------------------------------------

CParam Bound(int type, unsigned size) {
    CParam p;
    p.cType = static_cast<signed char>(type);
    p.nTaille = size;
    return p;
}

TEST_F(Requests, EveryRequestPutsItsParametersOnTheWireInOrder) {
    // The bound values are copies: a LONG of size 8 (as the bound-parameter
    // operations prepare it), a text and a NULL.
    std::vector<CParam> bound = {Bound(SQL_C_LONG, 8), Bound(SQL_C_WCHAR, 6), Bound(SQL_C_WCHAR, 0)};
    bound[0].valNum.lVal = 42;
    delete[] bound[1].pszValeur;  // the copy's empty text
    bound[1].pszValeur = new wchar_t[7];
    std::wcscpy(bound[1].pszValeur, L"Dupont");
    bound[2].bNull = 1;
    std::vector<CParamProc> proc(2);
    proc[0].nSens = KVN_PARAM_IN;
    static_cast<CParam&>(proc[0]) = Bound(SQL_C_LONG, 8);
    proc[0].valNum.lVal = 10;
    proc[1].nSens = KVN_PARAM_OUT;
    proc[1].cType = SQL_C_DOUBLE;
    proc[1].bNull = 1;

    Open(7, 3, AcknowledgeUntilClose);
    std::vector<Message> expected;
    auto sent = [&](int built, Message m) {
        EXPECT_EQ(0, built) << m.Fonction();
        EXPECT_EQ(1, msg->SendMessage(link->Get(), -1, -1)) << m.Fonction();
        expected.push_back(m);
    };
    using namespace peer;
    const wchar_t* select = L"SELECT nom FROM clients WHERE ville = 'Gen\u00e8ve \U0001F600'";
    const wchar_t* insert = L"INSERT INTO t VALUES (?,?,?)";
    sent(msg->CreateExec(L"SELECT 1"), Msg(KVN_EXECUTE, 7, 3, {Text(L"SELECT 1")}));
    // An acknowledged message stays encoded for another send; a message
    // without a header is not sent at all.
    EXPECT_EQ(1, msg->SendMessage(link->Get(), -1, -1));
    expected.push_back(expected.back());
    EXPECT_EQ(0, CMsgSocket().SendMessage(link->Get(), -1, -1));
    sent(msg->CreateExecSelect(select), Msg(KVN_EXECUTESELECT, 7, 3, {Text(select)}));
    sent(msg->CreateFetch(), Msg(KVN_FETCH, 7, 3));
    sent(msg->CreateGetData(3, -4), Msg(KVN_GETDATA, 7, 3, {Long(3), Long(-4)}));
    sent(msg->CreateLibereConnexionSelect(), Msg(KVN_LIBERE_CNX_SELECT, 7, 3));
    sent(msg->CreateGetLine(0), Msg(KVN_GETLINE, 7, 3, {Long(0)}));
    sent(msg->CreateIsTableExist(L"clients"), Msg(KVN_EXISTTABLE, 7, 3, {Text(L"clients")}));
    sent(msg->CreateIsColumnExist(L"clients", L"nom"),
         Msg(KVN_EXISTCOLUMN, 7, 3, {Text(L"clients"), Text(L"nom")}));
    sent(msg->CreateGetColumns(L"clients"), Msg(KVN_GETCOLUMNS, 7, 3, {Text(L"clients")}));
    sent(msg->CreateExecBind(insert, static_cast<int>(bound.size()), bound.data()),
         Msg(KVN_EXECUTEBIND, 7, 3,
             {Text(insert), Long(42, 8), Text(L"Dupont"), NullOf(kTypeWChar)}));
    sent(msg->CreateExecStoredProc(L"ps_maj", static_cast<int>(proc.size()), proc.data(), 3),
         Msg(KVN_EXECUTEPROC, 7, 3,
             {Text(L"ps_maj"), Long(3), Long(KVN_PARAM_IN), Long(10, 8), Long(KVN_PARAM_OUT),
              NullOf(kTypeDouble)}));
    sent(msg->CreateGetErrorText(), Msg(KVN_GET_ODBC_ERROR_TEXT, 7, 3));
    sent(msg->CreateExecRequete(L"TABLES"), Msg(KVN_REQUETE_METABASE, 7, 3, {Text(L"TABLES")}));
    // These two are sent at once, on no connection.
    EXPECT_EQ(0, msg->SendHeartBeat());
    expected.push_back(Msg(KVN_HEART_BEAT, 7, 0));
    EXPECT_EQ(0, msg->SendCloseApplication());
    expected.push_back(Msg(KVN_CLOSE_APPLICATION, 7, 0));
    Finish();

    std::vector<Message> got = service.Received(0);
    ASSERT_EQ(expected.size(), got.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        SCOPED_TRACE(expected[i].Fonction());
        clienttest::ExpectSameRequest(expected[i], got[i]);
    }
}

// Every request but the registration needs an initialised object with an
// application id; without one nothing is built and nothing goes out.
TEST_F(Requests, WithoutInitOrApplicationIdEveryRequestButTheRegistrationIsRefused) {
    CMsgSocketClient fresh;
    EXPECT_EQ(KVN_ERROR_UNKNOWN, fresh.SendInitApplication(L"Caisse"));
    Open(0, 3, [](Connection& c) { c.ExpectSilence(200); });
    for (CMsgSocketClient* m : {&fresh, msg.get()}) {
        CParam one;
        CParamProc oneProc;
        const int results[] = {
            m->SendReInitApplication(L"Caisse"), m->SendInitConnexion(), m->SendReInitConnexion(),
            m->SendCloseApplication(), m->SendHeartBeat(), m->CreateExec(L"SELECT 1"),
            m->CreateExecSelect(L"SELECT 1"), m->CreateFetch(), m->CreateGetData(1, 2),
            m->CreateLibereConnexionSelect(), m->CreateGetLine(0), m->CreateIsTableExist(L"t"),
            m->CreateIsColumnExist(L"t", L"c"), m->CreateGetColumns(L"t"),
            m->CreateExecBind(L"SELECT ?", 1, &one), m->CreateExecStoredProc(L"p", 1, &oneProc, 0),
            m->CreateGetErrorText(), m->CreateExecRequete(L"TABLES")};
        for (int r : results) EXPECT_EQ(KVN_ERROR_UNKNOWN, r) << "request " << (&r - results);
        EXPECT_EQ(-1, m->GetFonction()) << "no request was built";
    }
    Finish();
}

}  // namespace
