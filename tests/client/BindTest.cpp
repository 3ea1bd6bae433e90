// Bound statements and direct requests: values bound by position and sent in
// order with ExecuteBind, NULL binds, the positions accepted, what a second
// ExecuteBind sends without binding again, and ExecuteRequete.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>

#include "support/OperationSession.h"

namespace {

using peer::Long;
using peer::Text;

class Bind : public OperationSession {
protected:
    std::vector<peer::Message> Of(int fonction) {
        std::vector<peer::Message> found;
        for (const peer::Message& m : Requests())
            if (m.Fonction() == fonction) found.push_back(m);
        return found;
    }
};

TEST_F(Bind, PositionsFrom1To128) {
    Open(nullptr);
    int v = 1;
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.BindParameter(hCnx, 0, SQL_C_LONG, &v, 4));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.BindParameter(hCnx, 129, SQL_C_LONG, &v, 4));
    EXPECT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 128, SQL_C_LONG, &v, 4));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.BindParameter(hCnx + 1, 1, SQL_C_LONG, &v, 4));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 22  "));
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

    int resultat = -1;
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteBind(hCnx, L"insert into t values (?,?,?,?,?,?,?,?)", resultat));
    EXPECT_EQ(3, resultat);
    // The answer replaced the bound values: a second ExecuteBind sends what
    // it left, its single value.
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteBind(hCnx, L"update", resultat));
    EXPECT_EQ(4, resultat);

    Finish();
    std::vector<peer::Message> binds = Of(KVN_EXECUTEBIND);
    ASSERT_EQ(2u, binds.size());
    const peer::Message& m = binds[0];
    ASSERT_EQ(9, m.Count());
    EXPECT_EQ(L"insert into t values (?,?,?,?,?,?,?,?)", m.Param(0).AsWide());
    EXPECT_EQ(peer::kTypeLong, m.Param(1).type);
    EXPECT_EQ(-12, m.Param(1).AsLong());
    EXPECT_DOUBLE_EQ(6.5, m.Param(2).AsDouble());
    EXPECT_EQ(-(1LL << 35), m.Param(3).AsBigInt());
    EXPECT_EQ("020120200304050000", m.Param(4).AsTimestamp());
    EXPECT_EQ(L"bonjour", m.Param(5).AsWide());
    EXPECT_TRUE(m.Param(6).IsNull());
    EXPECT_EQ(peer::kTypeLong, m.Param(6).type);
    EXPECT_TRUE(m.Param(7).IsNull());
    EXPECT_EQ(peer::kTypeDouble, m.Param(7).type);
    EXPECT_TRUE(m.Param(8).IsNull());
    EXPECT_EQ(peer::kTypeChar, m.Param(8).type);

    ASSERT_EQ(2, binds[1].Count());
    EXPECT_EQ(3, binds[1].Param(1).AsLong());
}

TEST_F(Bind, ErrorsOfExecuteBindAndItsResultat) {
    Open([](peer::Connection& c) { Serve(c, KVN_EXECUTEBIND, {Long(-2), Long(KVN_ERROR_ODBC)}); });
    int resultat = 9;
    EXPECT_EQ(KVN_ERROR_ODBC, client.ExecuteBind(hCnx, L"insert", resultat));
    EXPECT_EQ(0, resultat);
    resultat = 9;
    client.SetAllConnected(FALSE);
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.ExecuteBind(hCnx, L"insert", resultat));
    client.SetAllConnected(TRUE);
    EXPECT_EQ(9, resultat);
}

TEST_F(Bind, ExecuteRequeteGivesTheStatusOnly) {
    Open([](peer::Connection& c) {
        peer::Message m = Serve(c, KVN_REQUETE_METABASE, {Long(0)});
        EXPECT_EQ(1, m.Count());
        EXPECT_EQ(L"METABASE 1", m.Param(0).AsWide());
        Serve(c, KVN_REQUETE_METABASE, {Long(-2), Long(KVN_ERROR_TABLE_NOT_FOUND)});
        c.ExpectSilence(200);
    });
    EXPECT_EQ(KVN_NO_ERROR, client.ExecuteRequete(hCnx, L"METABASE 1"));
    EXPECT_EQ(KVN_ERROR_TABLE_NOT_FOUND, client.ExecuteRequete(hCnx, L"METABASE 2"));
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.ExecuteRequete(hCnx, L""));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.ExecuteRequete(hCnx + 1, L"METABASE"));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 24  "));
}

}  // namespace
