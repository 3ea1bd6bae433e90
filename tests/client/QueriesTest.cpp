// The smaller operations of a connection, each against the scripted service:
// bound statements (values bound by position, NULL binds, the positions
// accepted, what a second ExecuteBind sends) and direct requests; schema
// questions with the out-arguments left alone on every failure; the text of
// the connection's last ODBC error; the large request of SendTest.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>

#include "ClientTestUtil.h"
#include "support/OperationSession.h"
#include "support/TestUtil.h"

namespace {

using peer::Long;
using peer::Text;

class Bind : public OperationSession {};
class Schema : public OperationSession {};
class ServiceText : public OperationSession {};

// ---- Bound statements and direct requests ----------------------------------------------

TEST_F(Bind, PositionsFrom1To128AndWhatAFailedExecuteBindLeavesInResultat) {
    Open([](peer::Connection& c) { Serve(c, KVN_EXECUTEBIND, {Long(-2), Long(KVN_ERROR_ODBC)}); });
    int v = 1;
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.BindParameter(hCnx, 0, SQL_C_LONG, &v, 4));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.BindParameter(hCnx, 129, SQL_C_LONG, &v, 4));
    EXPECT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 128, SQL_C_LONG, &v, 4));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.BindParameter(hCnx + 1, 1, SQL_C_LONG, &v, 4));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 22  "));

    int resultat = 9;
    EXPECT_EQ(KVN_ERROR_ODBC, client.ExecuteBind(hCnx, L"insert", resultat));
    EXPECT_EQ(0, resultat);
    resultat = 9;
    client.SetAllConnected(FALSE);
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.ExecuteBind(hCnx, L"insert", resultat));
    client.SetAllConnected(TRUE);
    EXPECT_EQ(9, resultat);
}

TEST_F(Bind, EveryTypeAndNullTravelInOrder) {
    Open([](peer::Connection& c) {
        Serve(c, KVN_EXECUTEBIND, {Long(0), Long(3)});
        Serve(c, KVN_EXECUTEBIND, {Long(0), Long(4)});
    });
    int l = -12;
    double d = 6.5;
    long long big = -(1LL << 35);
    KvnTimestamp ts = {2020, 1, 2, 3, 4, 5, 0};
    wchar_t text[] = L"bonjour tout le monde";
    int unused = 3;
    ASSERT_EQ(0, client.BindParameter(hCnx, 1, SQL_C_LONG, &l, 4));
    ASSERT_EQ(0, client.BindParameter(hCnx, 2, SQL_C_DOUBLE, &d, 8));
    ASSERT_EQ(0, client.BindParameter(hCnx, 3, 231, &big, 8));
    ASSERT_EQ(0, client.BindParameter(hCnx, 4, SQL_C_TIMESTAMP, &ts, 16));
    ASSERT_EQ(0, client.BindParameter(hCnx, 5, SQL_C_WCHAR, text, 7));  // only "bonjour"
    ASSERT_EQ(0, client.BindParameter(hCnx, 6, SQL_C_LONG, nullptr, 4));
    ASSERT_EQ(0, client.BindParameter(hCnx, 7, SQL_C_DOUBLE, &d, 0));
    ASSERT_EQ(0, client.BindParameter(hCnx, 8, 3, &unused, 4));  // not bindable: a NULL text
    // Types are compared whole, as the stored procedures compare them: the
    // low byte of 0x104 is SQL_C_LONG's, yet it is no type.
    ASSERT_EQ(0, client.BindParameter(hCnx, 9, 0x104, &unused, 4));

    int resultat = -1;
    const wchar_t* insert = L"insert into t values (?,?,?,?,?,?,?,?,?)";
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteBind(hCnx, insert, resultat));
    EXPECT_EQ(3, resultat);
    // The answer replaced the bound values: a second ExecuteBind sends what
    // it left, its single value.
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteBind(hCnx, L"update", resultat));
    EXPECT_EQ(4, resultat);

    Finish();
    std::vector<peer::Message> binds = clienttest::OfFunction(Requests(), KVN_EXECUTEBIND);
    ASSERT_EQ(2u, binds.size());
    using namespace peer;
    clienttest::ExpectSameRequest(
        Msg(KVN_EXECUTEBIND, 7, hCnx,
            {Text(insert), Long(-12, 8), Double(6.5), BigInt(-(1LL << 35)),
             Timestamp("020120200304050000"), Text(L"bonjour"), NullOf(kTypeLong),
             NullOf(kTypeDouble), NullOf(kTypeChar), NullOf(kTypeChar)}),
        binds[0]);
    clienttest::ExpectSameRequest(Msg(KVN_EXECUTEBIND, 7, hCnx, {Text(L"update"), Long(3)}),
                                  binds[1]);
}

TEST_F(Bind, ExecuteRequeteGivesTheStatusOnly) {
    Open([](peer::Connection& c) {
        peer::Message m = Serve(c, KVN_REQUETE_METABASE, {Long(-2), Long(KVN_ERROR_TABLE_NOT_FOUND)});
        EXPECT_EQ(1, m.Count());
        EXPECT_EQ(L"METABASE 1", m.Param(0).AsWide());
        c.ExpectSilence(200);
    });
    EXPECT_EQ(KVN_ERROR_TABLE_NOT_FOUND, client.ExecuteRequete(hCnx, L"METABASE 1"));
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.ExecuteRequete(hCnx, L""));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.ExecuteRequete(hCnx + 1, L"METABASE"));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 24  "));
}

// ---- Schema questions -------------------------------------------------------------------

TEST_F(Schema, AnyNonZeroAnswerMeansTheTableExistsAndAnErrorLeavesTheAnswerAlone) {
    Open([](peer::Connection& c) {
        peer::Message m = Serve(c, KVN_EXISTTABLE, {Long(0), Long(7)});
        EXPECT_EQ(L"clients", m.Param(0).AsWide());
        Serve(c, KVN_EXISTTABLE, {Long(-2), Long(KVN_ERROR_TABLE_NOT_FOUND)});
    });
    int existe = 5;
    EXPECT_EQ(KVN_NO_ERROR, client.IsTableExist(hCnx, L"clients", existe));
    EXPECT_EQ(1, existe);
    existe = 5;
    EXPECT_EQ(KVN_ERROR_TABLE_NOT_FOUND, client.IsTableExist(hCnx, L"clients", existe));
    EXPECT_EQ(5, existe);
}

TEST_F(Schema, ColumnsArePassedThroughAndAShortAnswerIsRefused) {
    Open([](peer::Connection& c) {
        peer::Message m = Serve(c, KVN_GETCOLUMNS,
                                {Long(0), Long(2), Text(L"id;nom"), Text(L"INTEGER;VARCHAR")});
        EXPECT_EQ(L"commandes", m.Param(0).AsWide());
        Serve(c, KVN_GETCOLUMNS, {Long(0), Long(3), Text(L"a;b;c")});
        Serve(c, KVN_GETCOLUMNS, {Long(0), Long(1), Long(2), Text(L"x")});
        Serve(c, KVN_GETCOLUMNS, {Long(-2), Long(KVN_ERROR_TABLE_NOT_FOUND)});
    });
    int nb = 0;
    DStr noms, types;
    ASSERT_EQ(KVN_NO_ERROR, client.GetColumns(hCnx, L"commandes", nb, noms, types));
    // Then two values only, a number where a text belongs, an error: refused,
    // nothing written (the third slot still holds the first answer's types).
    EXPECT_EQ(KVN_ERROR_RECEIVE, client.GetColumns(hCnx, L"t", nb, noms, types));
    EXPECT_EQ(KVN_ERROR_RECEIVE, client.GetColumns(hCnx, L"t", nb, noms, types));
    EXPECT_EQ(KVN_ERROR_TABLE_NOT_FOUND, client.GetColumns(hCnx, L"t", nb, noms, types));
    EXPECT_EQ(2, nb);
    EXPECT_STREQ(L"id;nom", noms.GetString());
    EXPECT_STREQ(L"INTEGER;VARCHAR", types.GetString());
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.GetColumns(hCnx + 1, L"t", nb, noms, types));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 17  "));
}

// ---- The service's error text and SendTest ------------------------------------------------

TEST_F(ServiceText, LastErrorTextNullOrNot) {
    Open([](peer::Connection& c) {
        peer::Message m =
            Serve(c, KVN_GET_ODBC_ERROR_TEXT, {Long(0), Text(L"[ODBC] table inconnue")});
        EXPECT_EQ(0, m.Count());
        Serve(c, KVN_GET_ODBC_ERROR_TEXT, {Long(0), peer::NullOf(peer::kTypeWChar)});
        Serve(c, KVN_GET_ODBC_ERROR_TEXT, {Long(-2), Long(KVN_ERROR_ODBC)});
    });
    DStr text(L"avant");
    EXPECT_EQ(KVN_NO_ERROR, client.GetLastErrorConnexion(hCnx, text));
    EXPECT_STREQ(L"[ODBC] table inconnue", text.GetString());
    EXPECT_EQ(KVN_NO_ERROR, client.GetLastErrorConnexion(hCnx, text));
    EXPECT_STREQ(L"", text.GetString());

    text = L"avant";
    EXPECT_EQ(KVN_ERROR_ODBC, client.GetLastErrorConnexion(hCnx, text));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.GetLastErrorConnexion(hCnx + 1, text));
    EXPECT_STREQ(L"avant", text.GetString());
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 1  "));
}

TEST_F(ServiceText, SendTestPutsTheFixedRequestOnTheWire) {
    Open([](peer::Connection& c) {
        peer::Message m = c.Expect(KVN_EXECUTE);
        c.Ack(m);
        ASSERT_EQ(2500, m.Count());
        for (int n = 1; n <= 500; n++) {
            SCOPED_TRACE("group " + std::to_string(n));
            const peer::Value* v = &m.Param((n - 1) * 5);
            EXPECT_EQ(peer::kTypeLong, v[0].type);
            EXPECT_EQ(8, v[0].size);
            EXPECT_EQ(10000 * n, v[0].AsLong());
            const std::wstring texte = L"Toto et le texte qui tue " + std::to_wstring(n);
            EXPECT_EQ(peer::kTypeChar, v[1].type);
            EXPECT_EQ(texte.size(), v[1].size);
            EXPECT_EQ(texte, v[1].AsWide());
            EXPECT_DOUBLE_EQ(n * 100.0, v[2].AsDouble());
            EXPECT_EQ(peer::kTypeTimestamp, v[3].type);
            EXPECT_EQ(18, v[3].size);
            EXPECT_EQ(peer::kTypeTimestamp, v[4].type);
            EXPECT_TRUE(v[4].IsNull());
        }
    });
    kvntest::Clock::time_point start = kvntest::Clock::now();
    EXPECT_EQ(KVN_NO_ERROR, client.SendTest(hCnx));
    EXPECT_GE(kvntest::MsSince(start), 500 - kvntest::kTickSlackMs);
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.SendTest(hCnx + 1));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 14  "));
}

}  // namespace
