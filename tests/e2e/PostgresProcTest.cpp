// The library against korvaned on PostgreSQL: stored procedures whose IN,
// IN/OUT and OUT values of each type come back into the application's
// variables, and selects and schema questions on another database than
// SQLite; procedures (CALL) beside functions are run by kvnsql's tests. The
// tests skip where PostgreSQL or its ODBC driver is not installed.
#include <gtest/gtest.h>

#include <cstdint>
#include <cwchar>
#include <string>
#include <vector>

#include "E2eSession.h"

using e2e::Copy;

namespace {

class E2ePostgres : public e2e::E2eTest {
protected:
    void SetUp() override {
        E2eTest::SetUp();
        if (!SharedPostgres().skipReason.empty()) GTEST_SKIP() << SharedPostgres().skipReason;
        Start(ServiceArguments(4, {"--odbc", SharedPostgres().connection}));
    }
};

}  // namespace

TEST_F(E2ePostgres, StoredProceduresReturnTheirOutAndInOutValuesOrTheDatabasesText) {
    MustExecute(L"CREATE OR REPLACE FUNCTION kvn_tax(IN price double precision, INOUT qty integer, "
                L"OUT label varchar) AS $$ BEGIN qty := qty * 2; label := 'price ' || price; END $$ "
                L"LANGUAGE plpgsql");
    double price = 10.5;
    std::int32_t qty = 3;
    wchar_t label[64] = L"unchanged";
    ASSERT_EQ(KVN_NO_ERROR, client.ClearStoredProcParams(hCnx));
    ASSERT_EQ(KVN_NO_ERROR, client.AddStoredProcParams(hCnx, KVN_PARAM_IN, SQL_C_DOUBLE, &price, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.AddStoredProcParams(hCnx, KVN_PARAM_INOUT, SQL_C_LONG, &qty, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.AddStoredProcParams(hCnx, KVN_PARAM_OUT, SQL_C_WCHAR, label, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, L"kvn_tax", 0)) << ErrorText();
    EXPECT_EQ(6, qty);
    EXPECT_STREQ(L"price 10.5", label);
    EXPECT_DOUBLE_EQ(10.5, price) << "an IN value is not written";

    // The declarations stay: a second call sends the IN value of the IN/OUT
    // parameter as it was declared, not what came back.
    qty = 100;
    std::wcscpy(label, L"unchanged");
    DStr name(L"kvn_tax");
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, name, 0)) << ErrorText();
    EXPECT_EQ(6, qty);
    EXPECT_STREQ(L"price 10.5", label);

    // 64-bit integers, timestamps and texts both ways.
    MustExecute(L"CREATE OR REPLACE FUNCTION kvn_kinds(IN n bigint, IN stamp timestamp, IN who varchar, "
                L"INOUT total bigint, OUT later timestamp, OUT greeting varchar, OUT half double precision) "
                L"AS $$ BEGIN total := total + n; later := stamp + interval '1 day 1 second'; "
                L"greeting := 'hello ' || who; half := n / 2.0; END $$ LANGUAGE plpgsql");
    std::int64_t n = 5000000000LL;
    KvnTimestamp stamp{2024, 2, 28, 23, 59, 58, 0};
    wchar_t who[] = L"caf\u00e9";
    std::int64_t total = 7;
    KvnTimestamp later{};
    wchar_t greeting[64] = L"";
    double half = 0;
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 1, KVN_PARAM_IN, SQL_C_SBIGINT, &n, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 2, KVN_PARAM_IN, SQL_C_TIMESTAMP, &stamp, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 3, KVN_PARAM_IN, SQL_C_WCHAR, who, std::wcslen(who)));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 4, KVN_PARAM_INOUT, SQL_C_SBIGINT, &total, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 5, KVN_PARAM_OUT, SQL_C_TIMESTAMP, &later, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 6, KVN_PARAM_OUT, SQL_C_WCHAR, greeting, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 7, KVN_PARAM_OUT, SQL_C_DOUBLE, &half, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, L"kvn_kinds", 0)) << ErrorText();
    EXPECT_EQ(5000000007LL, total);
    EXPECT_EQ((std::vector<int>{2024, 2, 29, 23, 59, 59}),  // 2024 is a leap year
              (std::vector<int>{Copy(later.year), Copy(later.month), Copy(later.day), Copy(later.hour),
                                Copy(later.minute), Copy(later.second)}));
    EXPECT_STREQ(L"hello caf\u00e9", greeting);
    EXPECT_DOUBLE_EQ(2500000000.0, half);

    // Without values, twice.
    MustExecute(L"CREATE TABLE IF NOT EXISTS kvn_calls (at timestamp DEFAULT now())");
    MustExecute(L"DELETE FROM kvn_calls");
    MustExecute(L"CREATE OR REPLACE FUNCTION kvn_touch() RETURNS void AS $$ INSERT INTO kvn_calls DEFAULT VALUES "
                L"$$ LANGUAGE sql");
    ASSERT_EQ(KVN_NO_ERROR, client.ClearStoredProcParams(hCnx));
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, L"kvn_touch", 0)) << ErrorText();
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, L"kvn_touch", 0)) << ErrorText();
    SelectOne(L"SELECT COUNT(*) FROM kvn_calls");
    EXPECT_EQ(L"2", Read(1, 'b'));

    // A procedure the database does not know: its own text explains.
    std::int32_t out = 42;
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 1, KVN_PARAM_OUT, SQL_C_LONG, &out, 0));
    EXPECT_EQ(KVN_ERROR_ODBC, client.ExecStoredProc(hCnx, L"kvn_missing", 0));
    EXPECT_EQ(42, out) << "nothing copied back from a refused call";
    EXPECT_NE(std::string::npos, ErrorText().find("kvn_missing")) << ErrorText();
    DStr empty;
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.ExecStoredProc(hCnx, empty, 0));
    EXPECT_EQ(1, MustExecute(L"INSERT INTO kvn_calls DEFAULT VALUES")) << "the connection goes on working";
}

TEST_F(E2ePostgres, TextsBeyondTheBasicPlaneRoundTripWhole) {
    // Two UTF-16 code units each on the wire, one wide character each where
    // wchar_t is 32 bits: every size sent must count code units.
    wchar_t in[] = L"a\U0001F680b";
    wchar_t inout[64] = L"\U00010348x\U0001F600";
    wchar_t out[64] = L"";
    wchar_t empty[8] = L"unset";  // an empty text, which a UTF-16 text record cannot carry as such
    MustExecute(L"CREATE OR REPLACE FUNCTION kvn_astral(IN a varchar, INOUT b varchar, OUT c varchar, "
                L"OUT e varchar) AS $$ BEGIN c := a || '|' || b; b := b || a; e := ''; END $$ "
                L"LANGUAGE plpgsql");
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 1, KVN_PARAM_IN, SQL_C_WCHAR, in, std::wcslen(in)));
    ASSERT_EQ(KVN_NO_ERROR,
              client.SetStoredProcParams(hCnx, 2, KVN_PARAM_INOUT, SQL_C_WCHAR, inout, std::wcslen(inout)));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 3, KVN_PARAM_OUT, SQL_C_WCHAR, out, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 4, KVN_PARAM_OUT, SQL_C_WCHAR, empty, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, L"kvn_astral", 0)) << ErrorText();
    EXPECT_STREQ(L"\U00010348x\U0001F600a\U0001F680b", inout);
    EXPECT_STREQ(L"a\U0001F680b|\U00010348x\U0001F600", out);
    EXPECT_STREQ(L"", empty);

    // The same text bound to a statement, and read back by every text reader.
    MustExecute(L"CREATE TABLE IF NOT EXISTS kvn_astral_t (v varchar(20))");
    MustExecute(L"DELETE FROM kvn_astral_t");
    int resultat = 0;
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 1, SQL_C_WCHAR, in, std::wcslen(in)));
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteBind(hCnx, L"INSERT INTO kvn_astral_t VALUES (?)", resultat)) << ErrorText();
    SelectOne(L"SELECT v, length(v) FROM kvn_astral_t");
    ExpectReads({{1, 'x', in}, {1, 'w', in}, {1, 'c', in}, {2, 'l', L"3"}});
}

TEST_F(E2ePostgres, SelectsOfManyBlocksAndSchemaQuestionsWorkOnPostgres) {
    MustExecute(L"CREATE TABLE IF NOT EXISTS kvn_items (id integer, name varchar(20), price double precision)");
    MustExecute(L"DELETE FROM kvn_items");
    EXPECT_EQ(9, MustExecute(L"INSERT INTO kvn_items SELECT g, 'n' || g, g * 0.5 FROM generate_series(1, 9) g"));
    EXPECT_EQ((std::vector<long>{1, 2, 3, 4, 5, 6, 7, 8, 9}), SelectIds(L"SELECT id FROM kvn_items ORDER BY id"));
    SelectOne(L"SELECT id, name, price FROM kvn_items WHERE id = 3");
    ExpectReads({{1, 'l', L"3"}, {2, 'x', L"n3"}, {3, 'd', L"1.5"}});
    // Texts longer than their rowset's buffers (an unbounded text column),
    // between short ones, across blocks.
    int resultat = 0;
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"SELECT g, repeat('x', CASE WHEN g % 5 = 0 THEN 9000 "
                                                       L"ELSE g END) FROM generate_series(1, 12) g", resultat));
    for (int g = 1; g <= 12; ++g) {
        ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx));
        EXPECT_EQ(std::wstring(g % 5 == 0 ? 9000 : g, L'x'), Read(2, 'x')) << g;
    }
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));

    int nb = -1;
    DStr names, types;
    ASSERT_EQ(KVN_NO_ERROR, client.GetColumns(hCnx, L"kvn_items", nb, names, types));
    EXPECT_EQ(3, nb);
    EXPECT_STREQ(L"id;name;price", names.GetString());
    int existe = -1;
    EXPECT_EQ(KVN_NO_ERROR, client.IsColumnExist(hCnx, L"kvn_items", L"price", existe));
    EXPECT_EQ(1, existe);
}
