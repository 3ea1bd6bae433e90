// Schema questions: the names sent, the answers read back, and the
// out-arguments left alone on every failure.
#include <gtest/gtest.h>

#include <korvane/CKorvaneClient.h>

#include "support/OperationSession.h"

namespace {

using peer::Long;
using peer::Text;

class Schema : public OperationSession {};

TEST_F(Schema, TableAndColumnExistence) {
    Open([](peer::Connection& c) {
        peer::Message m = Serve(c, KVN_EXISTTABLE, {Long(0), Long(0)});
        EXPECT_EQ(L"clients", m.Param(0).AsWide());
        Serve(c, KVN_EXISTTABLE, {Long(0), Long(7)});
        Serve(c, KVN_EXISTTABLE, {Long(-2), Long(KVN_ERROR_TABLE_NOT_FOUND)});
        m = Serve(c, KVN_EXISTCOLUMN, {Long(0), Long(1)});
        ASSERT_EQ(2, m.Count());
        EXPECT_EQ(L"clients", m.Param(0).AsWide());
        EXPECT_EQ(L"nom", m.Param(1).AsWide());
    });
    int existe = 5;
    EXPECT_EQ(KVN_NO_ERROR, client.IsTableExist(hCnx, L"clients", existe));
    EXPECT_EQ(0, existe);
    EXPECT_EQ(KVN_NO_ERROR, client.IsTableExist(hCnx, L"clients", existe));
    EXPECT_EQ(1, existe) << "any non-zero value means the table exists";
    existe = 5;
    EXPECT_EQ(KVN_ERROR_TABLE_NOT_FOUND, client.IsTableExist(hCnx, L"clients", existe));
    EXPECT_EQ(5, existe);
    EXPECT_EQ(KVN_NO_ERROR, client.IsColumnExist(hCnx, L"clients", L"nom", existe));
    EXPECT_EQ(1, existe);
}

TEST_F(Schema, ColumnsArePassedThroughAndAShortAnswerIsRefused) {
    Open([](peer::Connection& c) {
        peer::Message m = Serve(c, KVN_GETCOLUMNS, {Long(0), Long(2), Text(L"id;nom"), Text(L"INTEGER;VARCHAR")});
        EXPECT_EQ(L"commandes", m.Param(0).AsWide());
        Serve(c, KVN_GETCOLUMNS, {Long(0), Long(3), Text(L"a;b;c")});
        Serve(c, KVN_GETCOLUMNS, {Long(0), Long(1), Long(2), Text(L"x")});
        Serve(c, KVN_GETCOLUMNS, {Long(-2), Long(KVN_ERROR_TABLE_NOT_FOUND)});
    });
    int nb = 0;
    DStr noms, types;
    ASSERT_EQ(KVN_NO_ERROR, client.GetColumns(hCnx, L"commandes", nb, noms, types));
    EXPECT_EQ(2, nb);
    EXPECT_STREQ(L"id;nom", noms.GetString());
    EXPECT_STREQ(L"INTEGER;VARCHAR", types.GetString());

    // Two values only, then a number where a text belongs: refused, nothing
    // written (the third slot still holds the first answer's types).
    EXPECT_EQ(KVN_ERROR_RECEIVE, client.GetColumns(hCnx, L"t", nb, noms, types));
    EXPECT_EQ(KVN_ERROR_RECEIVE, client.GetColumns(hCnx, L"t", nb, noms, types));
    EXPECT_EQ(KVN_ERROR_TABLE_NOT_FOUND, client.GetColumns(hCnx, L"t", nb, noms, types));
    EXPECT_EQ(2, nb);
    EXPECT_STREQ(L"id;nom", noms.GetString());
    EXPECT_STREQ(L"INTEGER;VARCHAR", types.GetString());
}

TEST_F(Schema, WithTheLinkDownNothingIsSent) {
    Open([](peer::Connection& c) { c.ExpectSilence(300); });
    client.SetAllConnected(FALSE);
    int existe = 4, nb = 4;
    DStr noms(L"n"), types(L"t");
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.IsTableExist(hCnx, L"t", existe));
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.IsColumnExist(hCnx, L"t", L"c", existe));
    EXPECT_EQ(KVN_ERROR_SOCKET_CLOSED, client.GetColumns(hCnx, L"t", nb, noms, types));
    client.SetAllConnected(TRUE);
    EXPECT_EQ(4, existe);
    EXPECT_EQ(4, nb);
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.GetColumns(hCnx + 1, L"t", nb, noms, types));
    EXPECT_EQ(1, debugger.Count(L"\r\nError KVN_ERROR_HANDLE_CNX 17  "));
}

}  // namespace
