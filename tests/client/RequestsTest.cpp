// The client's requests on the wire: the registration of the application and
// of its connections with what the service answers, the close, and every
// database request builder, each checked by the test service's own decoder.
#include <chrono>
#include <cstring>
#include <cwchar>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CMsgSocketClient.h>

#include "peer/ScriptedPeer.h"
#include "platform/SystemInfo.h"
#include "support/ClientSocket.h"
#include "support/ServiceSession.h"

namespace {

using peer::Connection;
using peer::Message;

long MsSince(peer::Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(peer::Clock::now() - start).count());
}

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

// Compares a request read by the service with the one expected: header
// fields, then each record's type, size and value. A LONG is compared on its
// 4 value bytes only: what fills a wider field is not the client's to say.
void ExpectSameRequest(const Message& expected, const Message& got) {
    ASSERT_TRUE(got.complete) << "the request did not arrive whole";
    EXPECT_EQ("", got.error) << peer::Hex(got.raw);
    EXPECT_EQ(expected.Fonction(), got.Fonction());
    EXPECT_EQ(expected.IdApplication(), got.IdApplication());
    EXPECT_EQ(expected.IdConnexion(), got.IdConnexion());
    EXPECT_EQ(1, got.header.unicode);
    ASSERT_EQ(expected.Count(), got.Count()) << peer::Hex(got.raw);
    EXPECT_EQ(got.Count(), got.header.nbParam);
    for (int i = 0; i < expected.Count(); ++i) {
        const peer::Value& e = expected.Param(i);
        const peer::Value& g = got.Param(i);
        SCOPED_TRACE("parameter " + std::to_string(i));
        EXPECT_EQ(static_cast<int>(e.type), static_cast<int>(g.type));
        EXPECT_EQ(e.size, g.size);
        if (e.IsNull() || g.IsNull()) continue;
        if (e.isText) {
            EXPECT_EQ(e.AsWide(), g.AsWide());
        } else if (e.type == peer::kTypeLong) {
            EXPECT_EQ(e.AsLong(), g.AsLong());
        } else {
            EXPECT_EQ(peer::Hex(e.data), peer::Hex(g.data));
        }
    }
}

// The service answers on the main link or a connection's link; the request
// object is prepared by each test with its own ids and time-outs.
class Requests : public ::testing::Test {
protected:
    void Connect(int idApplication, int idConnexion) {
        link.reset(new ClientSocket(service.Port()));
        msg.Init(idApplication, idConnexion, link->Get(), &comm);
    }
    // The client is done: closing its end also ends the service's silence
    // checks (a close is not a byte), then the scripts must all have ended.
    void Finish() {
        if (link) link->Close();
        service.WaitForScripts();
    }
    CParamComm TakenOver() {
        CParamComm out;
        msg.GetParamComm(&out);
        return out;
    }

    peer::ScriptedPeer service;
    std::unique_ptr<ClientSocket> link;
    CParamComm comm;  // the client's defaults unless a test says otherwise
    CMsgSocketClient msg;
};

// A service answer that is not the default one in any word.
SessionAnswer DistinctAnswer() {
    SessionAnswer a;
    a.idApplication = 4242;
    a.periodeHB = 1500;
    a.nbPeriodeHB = 5;
    a.portHB = 47001;
    a.multicastHB = 1;
    a.adresseHB = L"239.1.2.3";
    a.param3 = 33;
    a.nbRetrySend = 4;
    a.timeOutConnect = 2500;
    a.timeOutAck = 700;
    a.dbType = 3;
    return a;
}

// ---- INIT_APPLICATION -----------------------------------------------------------------------

TEST_F(Requests, InitApplicationNamesTheComputerAndTheApplication) {
    Message expected =
        peer::Msg(KVN_INIT_APPLICATION, 0, 0,
                  {peer::Text(ComputerName().c_str()), peer::Text(L"Caisse \u00e9t\u00e9"),
                   peer::Long(1)});
    service.OnAccept(0, [expected](Connection& c) {
        c.Ack(c.ExpectMessage(expected));
        c.Answer(InitApplicationAnswer(SessionAnswer()));
    });
    Connect(0, 0);
    EXPECT_EQ(0, msg.SendInitApplication(L"Caisse \u00e9t\u00e9"));
    Finish();
}

TEST_F(Requests, InitApplicationWithoutNamesSendsUnknowAndANullName) {
    NoComputerName noName;
    Message expected =
        peer::Msg(KVN_INIT_APPLICATION, 0, 0,
                  {peer::Text(L"Unknow"), peer::NullOf(peer::kTypeWChar), peer::Long(1)});
    service.OnAccept(0, [expected](Connection& c) {
        c.Ack(c.ExpectMessage(expected));
        c.Answer(InitApplicationAnswer(SessionAnswer()));
    });
    Connect(0, 0);
    EXPECT_EQ(0, msg.SendInitApplication(L""));
    Finish();
}

TEST_F(Requests, InitApplicationTakesTheTenAnswerWordsAndTheIdOfTheAnswer) {
    SessionAnswer a = DistinctAnswer();
    service.OnAccept(0, [a](Connection& c) { RegisterApplication(c, a); });
    comm.nReserved = 1234;
    Connect(0, 0);

    EXPECT_EQ(0, msg.SendInitApplication(L"Caisse"));
    Finish();
    EXPECT_EQ(4242, msg.GetIdApplication());
    EXPECT_EQ(3, msg.GetDBType());
    CParamComm got = TakenOver();
    EXPECT_EQ(1500, got.nPeriodeHB);
    EXPECT_EQ(5, got.nNbPeriodeHB);
    EXPECT_EQ(47001, got.nPortHB);
    EXPECT_EQ(1, got.bMulticastHB);
    EXPECT_EQ(std::wstring(L"239.1.2.3"), std::wstring(got.szAdresseHB));
    EXPECT_EQ(33, got.nParam3);
    EXPECT_EQ(4, got.nNbRetrySend);
    EXPECT_EQ(2500, got.nTimeOutConnect);
    EXPECT_EQ(700, got.nTimeOutAck);
    EXPECT_EQ(1234, got.nReserved) << "the unused word is left alone";
    // The session is open: the object builds requests with the new id.
    EXPECT_EQ(0, msg.CreateFetch());
    EXPECT_EQ(4242, msg.CMsgSocket::GetIdApplication());
}

TEST_F(Requests, InitApplicationSkipsAnAnswerWordOfTheWrongType) {
    Message answer = InitApplicationAnswer(DistinctAnswer());
    answer.params[6] = peer::Text(L"9");
    service.OnAccept(0, [answer](Connection& c) {
        c.Ack(c.Expect(KVN_INIT_APPLICATION));
        c.Answer(answer);
    });
    Connect(0, 0);

    EXPECT_EQ(0, msg.SendInitApplication(L"Caisse"));
    Finish();
    CParamComm got = TakenOver();
    EXPECT_EQ(comm.nNbRetrySend, got.nNbRetrySend);
    EXPECT_EQ(1500, got.nPeriodeHB);
    EXPECT_EQ(33, got.nParam3);
    EXPECT_EQ(2500, got.nTimeOutConnect);
    EXPECT_EQ(700, got.nTimeOutAck);
    EXPECT_EQ(3, msg.GetDBType());
    EXPECT_EQ(4242, msg.GetIdApplication());
}

TEST_F(Requests, InitApplicationRefusedWithOneValueReturnsItAndLeavesTheObjectClosed) {
    service.OnAccept(0, [](Connection& c) {
        c.Ack(c.Expect(KVN_INIT_APPLICATION));
        c.Answer(peer::Msg(KVN_INIT_APPLICATION, 0, 0, {peer::Long(KVN_ERROR_MAX_CLIENT_ATTEINT)}));
    });
    Connect(0, 0);

    EXPECT_EQ(KVN_ERROR_MAX_CLIENT_ATTEINT, msg.SendInitApplication(L"Caisse"));
    Finish();
    EXPECT_EQ(KVN_ERROR_UNKNOWN, msg.CreateExec(L"SELECT 1"));
}

TEST_F(Requests, InitApplicationAnsweredWithNineWordsGivesMinus68) {
    Message answer = InitApplicationAnswer(DistinctAnswer());
    answer.params.pop_back();
    service.OnAccept(0, [answer](Connection& c) {
        c.Ack(c.Expect(KVN_INIT_APPLICATION));
        c.Answer(answer);
    });
    Connect(0, 0);

    EXPECT_EQ(KVN_ERROR_INIT_NB_PARAM, msg.SendInitApplication(L"Caisse"));
    Finish();
    EXPECT_EQ(KVN_ERROR_UNKNOWN, msg.CreateExec(L"SELECT 1"));
}

TEST_F(Requests, InitApplicationWithAnImplausibleAnswerGivesMinus51) {
    service.OnAccept(0, [](Connection& c) {
        c.Ack(c.Expect(KVN_INIT_APPLICATION));
        peer::Header bad;
        bad.fonction = 2;
        c.SendRaw(peer::EncodeHeader(bad));
        EXPECT_EQ(peer::kHeaderSize, c.ReadRaw(peer::kHeaderSize).size()) << "a refusal";
    });
    Connect(0, 0);

    EXPECT_EQ(KVN_ERROR_RECEIVE, msg.SendInitApplication(L"Caisse"));
    Finish();
}

TEST_F(Requests, InitApplicationNotAcknowledgedGivesMinus53) {
    service.OnAccept(0, [](Connection& c) {
        c.Expect(KVN_INIT_APPLICATION);
        c.ExpectSilence(300);
    });
    comm.nTimeOutAck = 50;
    Connect(0, 0);

    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, msg.SendInitApplication(L"Caisse"));
    Finish();
}

TEST_F(Requests, InitApplicationWithoutAnswerGivesMinus68AfterTheHeaderWait) {
    service.OnAccept(0, [](Connection& c) {
        c.Ack(c.Expect(KVN_INIT_APPLICATION));
        c.ExpectSilence(2500);
    });
    Connect(0, 0);

    peer::Clock::time_point start = peer::Clock::now();
    EXPECT_EQ(KVN_ERROR_INIT_NB_PARAM, msg.SendInitApplication(L"Caisse"));
    EXPECT_GE(MsSince(start), 1900);
    Finish();
}

// ---- REINIT_APPLICATION ---------------------------------------------------------------------

TEST_F(Requests, ReInitWithoutANameSendsTwoParametersAndTakesTheAnswer) {
    SessionAnswer a = DistinctAnswer();
    a.idApplication = 77;
    Message expected = peer::Msg(KVN_REINIT_APPLICATION, 5, 0,
                                 {peer::Text(ComputerName().c_str()), peer::Long(1)});
    service.OnAccept(0, [expected, a](Connection& c) {
        c.Ack(c.ExpectMessage(expected));
        c.Answer(InitApplicationAnswer(a));
    });
    Connect(5, 0);

    EXPECT_EQ(0, msg.SendReInitApplication(L""));
    Finish();
    EXPECT_EQ(77, msg.GetIdApplication());
    EXPECT_EQ(3, msg.GetDBType());
    EXPECT_EQ(700, TakenOver().nTimeOutAck);
    EXPECT_EQ(0, msg.CreateFetch());
}

TEST_F(Requests, ReInitRefusedReturnsTheAnswersCodeAndTakesItsId) {
    Message expected =
        peer::Msg(KVN_REINIT_APPLICATION, 5, 0,
                  {peer::Text(ComputerName().c_str()), peer::Text(L"Caisse"), peer::Long(1)});
    service.OnAccept(0, [expected](Connection& c) {
        c.Ack(c.ExpectMessage(expected));
        c.Answer(peer::Msg(KVN_DECONNEXION, 6, 0, {peer::Long(KVN_ERROR_MAX_CLIENT_ATTEINT)}));
    });
    Connect(5, 0);

    EXPECT_EQ(KVN_DECONNEXION, msg.SendReInitApplication(L"Caisse"));
    Finish();
    EXPECT_EQ(6, msg.GetIdApplication());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, msg.CreateFetch()) << "the application is not registered";
}

// ---- INIT_CONNEXION and REINIT_CONNEXION ----------------------------------------------------

class ConnexionRequest : public Requests, public ::testing::WithParamInterface<int> {
protected:
    int Send() { return GetParam() == KVN_INIT_CONNEXION ? msg.SendInitConnexion()
                                                         : msg.SendReInitConnexion(); }
};

TEST_P(ConnexionRequest, AcceptedGivesZero) {
    const int code = GetParam();
    service.OnAccept(0, [code](Connection& c) {
        c.Ack(c.ExpectMessage(peer::Msg(code, 7, 3)));
        c.Answer(peer::Msg(KVN_INIT_OK, 7, 3));
    });
    Connect(7, 3);
    EXPECT_EQ(0, Send());
    Finish();
}

TEST_P(ConnexionRequest, RefusedGivesTheAnswersCode) {
    const int code = GetParam();
    service.OnAccept(0, [code](Connection& c) {
        c.Ack(c.Expect(code));
        c.Answer(peer::Msg(code, 7, 3, {peer::Long(KVN_ERROR_ODBC_CONNEXION)}));
    });
    Connect(7, 3);
    EXPECT_EQ(code, Send());
    Finish();
}

INSTANTIATE_TEST_SUITE_P(Requests, ConnexionRequest,
                         ::testing::Values(KVN_INIT_CONNEXION, KVN_REINIT_CONNEXION),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(info.param == KVN_INIT_CONNEXION ? "Init"
                                                                                 : "ReInit");
                         });

TEST_F(Requests, InitConnexionWithoutAnswerGivesMinus1AfterTheHeaderWait) {
    service.OnAccept(0, [](Connection& c) {
        c.Ack(c.Expect(KVN_INIT_CONNEXION));
        c.ExpectSilence(2500);
    });
    Connect(7, 3);
    EXPECT_EQ(-1, msg.SendInitConnexion());
    Finish();
}

// ---- Requests without an answer -------------------------------------------------------------

TEST_F(Requests, CloseApplicationAndHeartBeatCarryTheRegisteredIdAndAreOnlyAcknowledged) {
    service.OnAccept(0, MainLink(SessionAnswer()));
    Connect(0, 0);
    ASSERT_EQ(0, msg.SendInitApplication(L"Caisse"));
    EXPECT_EQ(0, msg.SendCloseApplication());
    EXPECT_EQ(0, msg.SendHeartBeat());
    Finish();

    std::vector<Message> got = service.Received(0);
    ASSERT_EQ(3u, got.size());
    const int id = SessionAnswer().idApplication;
    EXPECT_EQ(peer::Hex(peer::Encode(peer::Msg(KVN_CLOSE_APPLICATION, id, 0))),
              peer::Hex(got[1].raw));
    EXPECT_EQ(peer::Hex(peer::Encode(peer::Msg(KVN_HEART_BEAT, id, 0))), peer::Hex(got[2].raw));
}

TEST_F(Requests, CloseApplicationWaitsOnly100MsForItsAcknowledgement) {
    service.OnAccept(0, [](Connection& c) {
        Message m = c.Expect(KVN_CLOSE_APPLICATION);
        c.Delay(150);
        c.Ack(m);
    });
    comm.nTimeOutAck = 5000;  // not what this request waits
    Connect(7, 0);

    peer::Clock::time_point start = peer::Clock::now();
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, msg.SendCloseApplication());
    long waited = MsSince(start);
    EXPECT_GE(waited, 90);
    EXPECT_LT(waited, 1000);
    Finish();
}

// ---- Database request builders --------------------------------------------------------------

struct BuilderCase {
    const char* name;
    std::function<int(CMsgSocketClient&)> build;
    Message expected;  // ids 7 and 3
};

CParam LongBound(std::int32_t v) {
    CParam p;
    p.cType = SQL_C_LONG;
    p.nTaille = 8;  // as the bound-parameter operations prepare it
    p.valNum.lVal = v;
    return p;
}

TEST_F(Requests, EveryBuilderPutsItsParametersOnTheWireInOrder) {
    // The bound values: a LONG of size 8, a text, a double, a NULL, a
    // timestamp (its fraction is not sent), a 64-bit integer and a GUID.
    std::vector<CParam> bound(7);
    bound[0] = LongBound(42);
    bound[1].cType = SQL_C_WCHAR;
    bound[1].nTaille = 6;
    bound[1].pszValeur = new wchar_t[7];
    std::wcscpy(bound[1].pszValeur, L"Dupont");
    bound[2].cType = SQL_C_DOUBLE;
    bound[2].nTaille = 8;
    bound[2].valNum.dVal = 2.5;
    bound[3].cType = SQL_C_WCHAR;
    bound[3].bNull = 1;
    bound[4].cType = SQL_C_TIMESTAMP;
    bound[4].nTaille = 18;
    bound[4].dateValeur = KvnTimestamp{2006, 3, 7, 14, 5, 9, 1234};
    bound[5].cType = SQL_C_SBIGINT;
    bound[5].nTaille = 8;
    bound[5].valNum.llVal = -9000000000LL;
    bound[6].cType = SQL_C_GUID;
    bound[6].nTaille = 16;
    bound[6].guidValeur = GUID{0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};

    std::vector<CParamProc> proc(2);
    proc[0].nSens = KVN_PARAM_IN;
    static_cast<CParam&>(proc[0]) = LongBound(10);
    proc[1].nSens = KVN_PARAM_OUT;
    proc[1].cType = SQL_C_DOUBLE;
    proc[1].bNull = 1;

    using namespace peer;
    const wchar_t* select = L"SELECT nom FROM clients WHERE ville = 'Gen\u00e8ve \U0001F600'";
    std::vector<BuilderCase> cases = {
        {"CreateExec", [](CMsgSocketClient& m) { return m.CreateExec(L"SELECT 1"); },
         Msg(KVN_EXECUTE, 7, 3, {Text(L"SELECT 1")})},
        {"CreateExecSelect", [select](CMsgSocketClient& m) { return m.CreateExecSelect(select); },
         Msg(KVN_EXECUTESELECT, 7, 3, {Text(select)})},
        {"CreateFetch", [](CMsgSocketClient& m) { return m.CreateFetch(); },
         Msg(KVN_FETCH, 7, 3)},
        {"CreateGetData", [](CMsgSocketClient& m) { return m.CreateGetData(3, -4); },
         Msg(KVN_GETDATA, 7, 3, {Long(3), Long(-4)})},
        {"CreateLibereConnexionSelect",
         [](CMsgSocketClient& m) { return m.CreateLibereConnexionSelect(); },
         Msg(KVN_LIBERE_CNX_SELECT, 7, 3)},
        {"CreateGetLine", [](CMsgSocketClient& m) { return m.CreateGetLine(0); },
         Msg(KVN_GETLINE, 7, 3, {Long(0)})},
        {"CreateIsTableExist", [](CMsgSocketClient& m) { return m.CreateIsTableExist(L"clients"); },
         Msg(KVN_EXISTTABLE, 7, 3, {Text(L"clients")})},
        {"CreateIsColumnExist",
         [](CMsgSocketClient& m) { return m.CreateIsColumnExist(L"clients", L"nom"); },
         Msg(KVN_EXISTCOLUMN, 7, 3, {Text(L"clients"), Text(L"nom")})},
        {"CreateGetColumns", [](CMsgSocketClient& m) { return m.CreateGetColumns(L"clients"); },
         Msg(KVN_GETCOLUMNS, 7, 3, {Text(L"clients")})},
        {"CreateExecBind",
         [&bound](CMsgSocketClient& m) {
             return m.CreateExecBind(L"INSERT INTO t VALUES (?,?,?,?,?,?,?)",
                                     static_cast<int>(bound.size()), bound.data());
         },
         Msg(KVN_EXECUTEBIND, 7, 3,
             {Text(L"INSERT INTO t VALUES (?,?,?,?,?,?,?)"), Long(42, 8), Text(L"Dupont"),
              Double(2.5), NullOf(kTypeWChar), Timestamp("070320061405090000"),
              BigInt(-9000000000LL),
              Guid({0x78, 0x56, 0x34, 0x12, 0xBC, 0x9A, 0xF0, 0xDE, 1, 2, 3, 4, 5, 6, 7, 8})})},
        {"CreateExecStoredProc",
         [&proc](CMsgSocketClient& m) {
             return m.CreateExecStoredProc(L"ps_maj", static_cast<int>(proc.size()), proc.data(),
                                           3);
         },
         Msg(KVN_EXECUTEPROC, 7, 3,
             {Text(L"ps_maj"), Long(3), Long(KVN_PARAM_IN), Long(10, 8), Long(KVN_PARAM_OUT),
              NullOf(kTypeDouble)})},
        {"CreateGetErrorText", [](CMsgSocketClient& m) { return m.CreateGetErrorText(); },
         Msg(KVN_GET_ODBC_ERROR_TEXT, 7, 3)},
        {"CreateExecRequete", [](CMsgSocketClient& m) { return m.CreateExecRequete(L"TABLES"); },
         Msg(KVN_REQUETE_METABASE, 7, 3, {Text(L"TABLES")})},
    };

    const int count = static_cast<int>(cases.size());
    service.OnAccept(0, [count](Connection& c) {
        for (int i = 0; i < count; ++i) {
            Message m = c.Read();
            if (!m.complete) {
                ADD_FAILURE() << "request " << i << " did not arrive";
                return;
            }
            c.Ack(m);
        }
    });
    Connect(7, 3);
    for (BuilderCase& bc : cases) {
        SCOPED_TRACE(bc.name);
        EXPECT_EQ(0, bc.build(msg));
        ASSERT_EQ(1, msg.SendMessage(link->Get(), -1, -1));
    }
    Finish();

    std::vector<Message> got = service.Received(0);
    ASSERT_EQ(cases.size(), got.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].name);
        ExpectSameRequest(cases[i].expected, got[i]);
    }
}

TEST_F(Requests, EmptyStatementsAreRefusedWithMinus58AndAnEmptyRequest) {
    msg.Init(7, 3, INVALID_SOCKET, &comm);
    EXPECT_EQ(KVN_ERROR_PARAMETER, msg.CreateExec(L""));
    EXPECT_EQ(KVN_EXECUTE, msg.GetFonction());
    EXPECT_EQ(0, msg.GetNbParametre());
    EXPECT_EQ(KVN_ERROR_PARAMETER, msg.CreateExecSelect(L""));
    EXPECT_EQ(KVN_EXECUTESELECT, msg.GetFonction());
    EXPECT_EQ(0, msg.GetNbParametre());
    EXPECT_EQ(KVN_ERROR_PARAMETER, msg.CreateExecRequete(L""));
    EXPECT_EQ(KVN_REQUETE_METABASE, msg.GetFonction());
    EXPECT_EQ(0, msg.GetNbParametre());
}

// Every request but the registration needs an initialised object with an
// application id; without one nothing is built and nothing goes out.
void ExpectEveryRequestRefused(CMsgSocketClient& m) {
    CParam one;
    CParamProc oneProc;
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.SendReInitApplication(L"Caisse"));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.SendInitConnexion());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.SendReInitConnexion());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.SendCloseApplication());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.SendHeartBeat());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateExec(L"SELECT 1"));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateExecSelect(L"SELECT 1"));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateFetch());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateGetData(1, 2));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateLibereConnexionSelect());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateGetLine(0));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateIsTableExist(L"t"));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateIsColumnExist(L"t", L"c"));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateGetColumns(L"t"));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateExecBind(L"SELECT ?", 1, &one));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateExecStoredProc(L"p", 1, &oneProc, 0));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateGetErrorText());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, m.CreateExecRequete(L"TABLES"));
    EXPECT_EQ(-1, m.GetFonction()) << "no request was built";
}

TEST_F(Requests, AnObjectNeverInitialisedRefusesEveryRequest) {
    CMsgSocketClient fresh;
    EXPECT_EQ(KVN_ERROR_UNKNOWN, fresh.SendInitApplication(L"Caisse"));
    ExpectEveryRequestRefused(fresh);
}

TEST_F(Requests, WithoutAnApplicationIdOnlyTheRegistrationIsSent) {
    service.OnAccept(0, [](Connection& c) { c.ExpectSilence(200); });
    Connect(0, 3);
    ExpectEveryRequestRefused(msg);
    Finish();
}

}  // namespace
