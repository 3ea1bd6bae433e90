// The library's operations against korvaned on a SQLite file: statements
// with their row counts, selects of many blocks, every column reader, NULLs,
// bound values, direct requests, schema questions, the database's own error
// text and the test request.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <cwchar>
#include <string>
#include <thread>
#include <vector>

#include "E2eSession.h"
#include "platform/Uuid.h"

using e2e::Copy;
using e2e::Narrow;

namespace {

// Small blocks, so that a few dozen rows already take several exchanges.
constexpr int kBlockRows = 7;

class E2eSqlite : public e2e::E2eTest {
protected:
    void SetUp() override {
        E2eTest::SetUp();
        Start(e2e::ServiceArguments(kBlockRows, {"--db-type", "3"}));
    }

    // A table of n rows: id 1..n, name "row<id>".
    void MakeRows(int n) {
        MustExecute(L"CREATE TABLE rows (id INTEGER PRIMARY KEY, name VARCHAR(20))");
        const std::wstring sql =
            L"INSERT INTO rows (id, name) WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
            L"WHERE i < " + std::to_wstring(n) + L") SELECT i, 'row' || i FROM n";
        EXPECT_EQ(n, MustExecute(sql.c_str()));
    }

    // Runs a select whose first column is an integer and returns that column
    // of every row, fetching until the end.
    std::vector<long> SelectIds(const wchar_t* sql, int* fetchEnd = nullptr) {
        std::vector<long> ids;
        int resultat = -1;
        DStr text(sql);
    const int r = client.ExecuteSelect(hCnx, text, resultat);
        EXPECT_EQ(KVN_NO_ERROR, r) << ErrorText();
        if (r != KVN_NO_ERROR) return ids;
        int f = 0;
        while ((f = client.Fetch(hCnx)) == KVN_NO_ERROR && ids.size() < 100000) {
            long id = -1;
            EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, id));
            ids.push_back(id);
        }
        if (fetchEnd != nullptr) *fetchEnd = f;
        return ids;
    }

    // Makes the first row of `sql` current.
    void SelectOne(const wchar_t* sql) {
        int resultat = -1;
        ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, sql, resultat)) << ErrorText();
        ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx));
    }
};

}  // namespace

TEST_F(E2eSqlite, SessionAndConnexions) {
    EXPECT_EQ(3, dbType) << "the database type the service announces";
    EXPECT_EQ(3, client.GetDBType());
    EXPECT_TRUE(client.IsAppliConnected());

    MakeRows(3);
    const int second = client.GetConnexion();
    ASSERT_GT(second, 0);
    EXPECT_NE(hCnx, second);
    EXPECT_TRUE(client.IsConnexionConnected(second));
    // Both connections reach the same database file.
    int resultat = -1;
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(second, L"SELECT COUNT(*) FROM rows", resultat));
    ASSERT_EQ(KVN_NO_ERROR, client.Fetch(second));
    long count = 0;
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(second, 1, count));
    EXPECT_EQ(3, count);

    EXPECT_EQ(KVN_NO_ERROR, client.FreeConnexion(second));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.Execute(second, L"DELETE FROM rows", resultat));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, client.FreeConnexion(second));

    // A new session on the same service after Free: the handles start anew,
    // the data are still there.
    client.Free();
    EXPECT_FALSE(client.IsAppliConnected());
    ASSERT_EQ(KVN_NO_ERROR, client.Init(L"127.0.0.1", service->Port(), 0, L"e2e again", dbType, 0, nullptr,
                                        nullptr));
    hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);
    EXPECT_EQ((std::vector<long>{1, 2, 3}), SelectIds(L"SELECT id FROM rows ORDER BY id"));
}

TEST_F(E2eSqlite, InitFailsWhereNoServiceListens) {
    CKorvaneClient other;
    int type = -1;
    const unsigned short port = e2e::FreeTcpPort();
    ASSERT_NE(0, port);
    EXPECT_EQ(KVN_ERROR_UNKNOWN, other.Init(L"127.0.0.1", port, 0, L"nobody", type, 0, nullptr, nullptr));
    EXPECT_FALSE(other.IsAppliConnected());
    EXPECT_LT(other.GetConnexion(), 0);
}

TEST_F(E2eSqlite, ExecuteGivesTheRowsAffected) {
    MakeRows(10);
    EXPECT_EQ(4, MustExecute(L"UPDATE rows SET name = 'low' WHERE id <= 4"));
    EXPECT_EQ(0, MustExecute(L"DELETE FROM rows WHERE id > 100"));
    EXPECT_EQ(2, MustExecute(L"DELETE FROM rows WHERE id IN (9, 10)"));

    // A direct request answers its status only.
    EXPECT_EQ(KVN_NO_ERROR, client.ExecuteRequete(hCnx, L"INSERT INTO rows VALUES (11, 'direct')"));
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.ExecuteRequete(hCnx, L""));
    EXPECT_EQ(KVN_ERROR_ODBC, client.ExecuteRequete(hCnx, L"INSERT INTO rows VALUES (11, 'twice')"));
    EXPECT_EQ((std::vector<long>{1, 2, 3, 4, 5, 6, 7, 8, 11}), SelectIds(L"SELECT id FROM rows ORDER BY id"));

    int resultat = -1;
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.Execute(hCnx, L"", resultat));
    EXPECT_EQ(0, resultat);
}

TEST_F(E2eSqlite, SelectDeliversEveryRowAcrossManyBlocks) {
    MakeRows(50);
    int resultat = -1;
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"SELECT id, name FROM rows ORDER BY id", resultat));
    EXPECT_EQ(2, resultat) << "the service gives the number of columns beside the rows";
    int expected = 1;
    int f = 0;
    while ((f = client.Fetch(hCnx)) == KVN_NO_ERROR && expected <= 60) {
        long id = -1;
        DStr name;
        ASSERT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, id));
        ASSERT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 2, name));
        ASSERT_EQ(expected, id);
        ASSERT_EQ("row" + std::to_string(expected), Narrow(name.GetString()));
        ++expected;
    }
    EXPECT_EQ(KVN_NO_DATA, f);
    EXPECT_EQ(51, expected) << "every row once, in order";
    long id = -1;
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, 1, id)) << "no row is current after the end";
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx)) << "asking again finds nothing more";
    EXPECT_EQ(KVN_NO_ERROR, client.LibereStatment(hCnx));

    // Leaving a select half read: released, the next select starts afresh.
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"SELECT id FROM rows ORDER BY id DESC", resultat));
    for (int i = 0; i < kBlockRows + 3; ++i) ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx));
    ASSERT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, id));
    EXPECT_EQ(50 - kBlockRows - 2, id);
    EXPECT_EQ(KVN_NO_ERROR, client.LibereStatment(hCnx));
    EXPECT_EQ((std::vector<long>{50}), SelectIds(L"SELECT COUNT(*) FROM rows"));

    // Rows asked for explicitly come after those already buffered.
    CString byName(L"SELECT id FROM rows WHERE id <= 20 ORDER BY id");
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, byName, resultat));
    ASSERT_EQ(KVN_NO_ERROR, client.GetLine(hCnx, 2));
    for (long want = 1; want <= 20; ++want) {
        ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx)) << "row " << want;
        ASSERT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, id));
        ASSERT_EQ(want, id);
    }
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));

    // An empty result is a success whose first Fetch finds no row.
    int end = 0;
    EXPECT_TRUE(SelectIds(L"SELECT id FROM rows WHERE id > 1000", &end).empty());
    EXPECT_EQ(KVN_NO_DATA, end);

    // A statement empties the rows of the select before it.
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"SELECT id FROM rows", resultat));
    ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx));
    MustExecute(L"UPDATE rows SET name = 'x' WHERE id = 1");
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, 1, id));
}

TEST_F(E2eSqlite, GetDataConvertsEveryColumnType) {
    MustExecute(L"CREATE TABLE typed (i INTEGER, sh INTEGER, big INTEGER, d DOUBLE, dn DOUBLE, "
                L"g VARCHAR(36), ts TIMESTAMP, t VARCHAR(40), digits VARCHAR(10), sign VARCHAR(10), "
                L"dec VARCHAR(10), empty VARCHAR(10))");
    MustExecute(L"INSERT INTO typed VALUES (42, -1234, 5000000000, 2.9, -2.9, "
                L"'6B29FC40-CA47-1067-B31D-00DD010662DA', '2006-03-07 14:05:09', "
                L"'caf\u00e9 \u20ac', '42', '-42', '3.5', '')");
    SelectOne(L"SELECT * FROM typed");

    long l = 0;
    short s = 0;
    __int64 ll = 0;
    double d = 0;
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, l));
    EXPECT_EQ(42, l);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 2, s));
    EXPECT_EQ(-1234, s);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 3, ll));
    EXPECT_EQ(5000000000LL, ll);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 3, l));
    EXPECT_EQ(static_cast<long>(static_cast<std::int32_t>(5000000000LL & 0xFFFFFFFF)), l) << "the low 32 bits";
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 4, d));
    EXPECT_DOUBLE_EQ(2.9, d);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 4, l));
    EXPECT_EQ(2, l);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 5, l));
    EXPECT_EQ(-2, l);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 4, ll));
    EXPECT_EQ(2, ll);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, d));
    EXPECT_DOUBLE_EQ(42.0, d);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, ll));
    EXPECT_EQ(42, ll);

    // Texts of digits only are numbers; a sign or a decimal point is not.
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 9, l));
    EXPECT_EQ(42, l);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 9, d));
    EXPECT_DOUBLE_EQ(42.0, d);
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, 10, l));
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, 11, d));
    l = 77;
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 12, l));
    EXPECT_EQ(77, l) << "an empty text leaves the number alone";
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, 7, l)) << "a timestamp is no number";

    // A GUID held as text.
    GUID g{}, expected{};
    ASSERT_TRUE(KvnUuidFromString(L"6B29FC40-CA47-1067-B31D-00DD010662DA", &expected));
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 6, g));
    EXPECT_EQ(0, std::memcmp(&expected, &g, sizeof g));
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, 1, g));
    EXPECT_EQ(KVN_ERROR_DATATYPE, client.GetData(hCnx, 8, g));

    // The timestamp column.
    SYSTEMTIME st{};
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 7, st));
    EXPECT_EQ(2006, st.wYear);
    EXPECT_EQ(3, st.wMonth);
    EXPECT_EQ(7, st.wDay);
    EXPECT_EQ(14, st.wHour);
    EXPECT_EQ(5, st.wMinute);
    EXPECT_EQ(9, st.wSecond);
    EXPECT_EQ(0, st.wMilliseconds);
    DStr text;
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 7, text));
    EXPECT_STREQ(L"2006-03-07 14:05:09", text.GetString());

    // Texts, the non-ASCII ones included, in the three string forms.
    CString cs;
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 8, cs));
    EXPECT_STREQ(L"caf\u00e9 \u20ac", cs.GetString());
    wchar_t buffer[64];
    std::wmemset(buffer, L'#', 64);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 8, buffer));
    EXPECT_STREQ(L"caf\u00e9 \u20ac", buffer);
    EXPECT_EQ(L'#', buffer[7]) << "nothing written past the terminator";
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 8, text));
    EXPECT_STREQ(L"caf\u00e9 \u20ac", text.GetString());
    // Numbers as text.
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, text));
    EXPECT_STREQ(L"42", text.GetString());
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 3, cs));
    EXPECT_STREQ(L"5000000000", cs.GetString());
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 4, buffer));
    EXPECT_STREQ(L"2.900000", buffer);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 12, text));
    EXPECT_STREQ(L"", text.GetString());

    // The values themselves, with the types the service gave them.
    CParam p;
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, p));
    EXPECT_EQ(SQL_C_LONG, Copy(p.cType));
    EXPECT_EQ(42, Copy(p.valNum.lVal));
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 3, p));
    EXPECT_EQ(SQL_C_SBIGINT, Copy(p.cType));
    EXPECT_EQ(5000000000LL, Copy(p.valNum.llVal));
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 4, p));
    EXPECT_EQ(SQL_C_DOUBLE, Copy(p.cType));
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 7, p));
    EXPECT_EQ(SQL_C_TIMESTAMP, Copy(p.cType));
    EXPECT_EQ(2006, Copy(p.dateValeur.year));
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 8, p));
    EXPECT_TRUE(p.cType == SQL_C_WCHAR || p.cType == SQL_C_CHAR) << int(p.cType);
    ASSERT_NE(nullptr, Copy(p.pszValeur));
    EXPECT_STREQ(L"caf\u00e9 \u20ac", Copy(p.pszValeur));
    EXPECT_FALSE(Copy(p.bNull));

    // Columns that do not exist.
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, 0, l));
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, -1, text));
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.GetData(hCnx, 8, static_cast<wchar_t*>(nullptr)));
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, 13, d));
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, 1, l));
}

TEST_F(E2eSqlite, NullColumnsGiveTheNullValueOfEachOverload) {
    MustExecute(L"CREATE TABLE nulls (i INTEGER, d DOUBLE, t VARCHAR(10), ts TIMESTAMP)");
    MustExecute(L"INSERT INTO nulls VALUES (NULL, NULL, NULL, NULL)");
    SelectOne(L"SELECT i, d, t, ts FROM nulls");

    long l = 5;
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, 1, l));
    EXPECT_EQ(101, l);
    short s = 5;
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, 1, s));
    EXPECT_EQ(5, s) << "the short is left alone";
    __int64 ll = 5;
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, 1, ll));
    EXPECT_EQ(101, ll);
    double d = 5;
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, 2, d));
    EXPECT_DOUBLE_EQ(101.0, d);
    GUID g;
    std::memset(&g, 0xAB, sizeof g);
    const GUID nil{};
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, 3, g));
    EXPECT_EQ(0, std::memcmp(&nil, &g, sizeof g));
    SYSTEMTIME st;
    std::memset(&st, 0xAB, sizeof st);
    const SYSTEMTIME zero{};
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, 4, st));
    EXPECT_EQ(0, std::memcmp(&zero, &st, sizeof st));
    DStr text(L"before");
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, 3, text));
    EXPECT_STREQ(L"", text.GetString());
    CString cs(L"before");
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, 4, cs));
    EXPECT_STREQ(L"", cs.GetString());
    wchar_t buffer[8] = L"before";
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, 1, buffer));
    EXPECT_STREQ(L"", buffer);
    CParam p;
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 2, p));
    EXPECT_TRUE(Copy(p.bNull));
}

TEST_F(E2eSqlite, BoundValuesOfEveryTypeReachTheDatabase) {
    MustExecute(L"CREATE TABLE bound (id INTEGER PRIMARY KEY, big INTEGER, d DOUBLE, ts TIMESTAMP, "
                L"w VARCHAR(40), c VARCHAR(40), n VARCHAR(10), u VARCHAR(10), cut VARCHAR(10))");
    std::int32_t id = 7;
    std::int64_t big = -5000000000LL;
    double d = 2.25;
    KvnTimestamp ts{2024, 2, 29, 23, 59, 58, 0};
    wchar_t wide[] = L"caf\u00e9 \u20ac";
    wchar_t narrow[] = L"plain";
    std::int32_t unused = 1;
    wchar_t longer[] = L"abcdef";
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 1, SQL_C_LONG, &id, 4));
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 2, SQL_C_SBIGINT, &big, 8));
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 3, SQL_C_DOUBLE, &d, 8));
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 4, SQL_C_TIMESTAMP, &ts, sizeof ts));
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 5, SQL_C_WCHAR, wide, std::wcslen(wide)));
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 6, SQL_C_CHAR, narrow, std::wcslen(narrow)));
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 7, SQL_C_LONG, nullptr, 4)) << "a NULL";
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 8, 3, &unused, 4)) << "no such type: a NULL";
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 9, SQL_C_WCHAR, longer, 3)) << "read up to 3";
    int resultat = -1;
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteBind(hCnx, L"INSERT INTO bound VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
                                               resultat))
        << ErrorText();
    EXPECT_EQ(1, resultat);

    SelectOne(L"SELECT id, big, d, ts, w, c, n, u, cut FROM bound");
    long l = 0;
    __int64 ll = 0;
    double dd = 0;
    SYSTEMTIME st{};
    DStr text;
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, l));
    EXPECT_EQ(7, l);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 2, ll));
    EXPECT_EQ(-5000000000LL, ll);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 3, dd));
    EXPECT_DOUBLE_EQ(2.25, dd);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 4, st));
    EXPECT_EQ(2024, st.wYear);
    EXPECT_EQ(29, st.wDay);
    EXPECT_EQ(23, st.wHour);
    EXPECT_EQ(58, st.wSecond);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 5, text));
    EXPECT_STREQ(wide, text.GetString());
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 6, text));
    EXPECT_STREQ(L"plain", text.GetString());
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, 7, text));
    EXPECT_EQ(KVN_NULL_DATA, client.GetData(hCnx, 8, text));
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 9, text));
    EXPECT_STREQ(L"abc", text.GetString());

    // A bound statement that changes rows, and one the database refuses.
    double newD = -0.5;
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 1, SQL_C_DOUBLE, &newD, 8));
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 2, SQL_C_LONG, &id, 4));
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteBind(hCnx, L"UPDATE bound SET d = ? WHERE id = ?", resultat));
    EXPECT_EQ(1, resultat);
    ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, 1, SQL_C_LONG, &id, 4));
    EXPECT_EQ(KVN_ERROR_ODBC, client.ExecuteBind(hCnx, L"INSERT INTO bound (id) VALUES (?)", resultat));
    EXPECT_EQ(0, resultat);
    EXPECT_NE(std::string::npos, ErrorText().find("UNIQUE")) << ErrorText();

    SelectOne(L"SELECT d FROM bound");
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, dd));
    EXPECT_DOUBLE_EQ(-0.5, dd);
}

TEST_F(E2eSqlite, SchemaQuestionsUseTheDatabaseCatalog) {
    MustExecute(L"CREATE TABLE items (id INTEGER, name VARCHAR(40), price DOUBLE)");
    int existe = -1;
    EXPECT_EQ(KVN_NO_ERROR, client.IsTableExist(hCnx, L"items", existe));
    EXPECT_EQ(1, existe);
    EXPECT_EQ(KVN_NO_ERROR, client.IsTableExist(hCnx, L"item_", existe));
    EXPECT_EQ(0, existe) << "the name matches whole";
    existe = -1;
    EXPECT_EQ(KVN_NO_ERROR, client.IsTableExist(hCnx, L"nowhere", existe));
    EXPECT_EQ(0, existe);
    EXPECT_EQ(KVN_NO_ERROR, client.IsColumnExist(hCnx, L"items", L"price", existe));
    EXPECT_EQ(1, existe);
    EXPECT_EQ(KVN_NO_ERROR, client.IsColumnExist(hCnx, L"items", L"cost", existe));
    EXPECT_EQ(0, existe);

    int nb = -1;
    DStr names, types;
    ASSERT_EQ(KVN_NO_ERROR, client.GetColumns(hCnx, L"items", nb, names, types));
    EXPECT_EQ(3, nb);
    EXPECT_STREQ(L"id;name;price", names.GetString());
    EXPECT_EQ(0u, std::wstring(types.GetString()).find(L"INTEGER;VARCHAR")) << Narrow(types.GetString());

    nb = -1;
    names = L"kept";
    EXPECT_EQ(KVN_ERROR_TABLE_NOT_FOUND, client.GetColumns(hCnx, L"nowhere", nb, names, types));
    EXPECT_EQ(-1, nb);
    EXPECT_STREQ(L"kept", names.GetString());
}

TEST_F(E2eSqlite, FailingStatementLeavesTheDatabaseText) {
    DStr text(L"before");
    ASSERT_EQ(KVN_NO_ERROR, client.GetLastErrorConnexion(hCnx, text));
    EXPECT_STREQ(L"", text.GetString()) << "no error yet";

    int resultat = -1;
    EXPECT_EQ(KVN_ERROR_ODBC, client.Execute(hCnx, L"SELEC 1 FROM nowhere", resultat));
    EXPECT_EQ(0, resultat);
    EXPECT_NE(std::string::npos, ErrorText().find("syntax error")) << ErrorText();
    DStr english;
    EXPECT_EQ(KVN_NO_ERROR, client.GetErrorTxt(KVN_ERROR_ODBC, english));
    EXPECT_FALSE(english.IsEmpty());

    // A second connection keeps its own text.
    const int second = client.GetConnexion();
    ASSERT_GT(second, 0);
    EXPECT_EQ("", ErrorText(second));

    EXPECT_EQ(KVN_ERROR_ODBC, client.ExecuteSelect(hCnx, L"SELECT missing FROM nowhere", resultat));
    EXPECT_EQ(0, resultat);
    EXPECT_NE(std::string::npos, ErrorText().find("nowhere")) << ErrorText();
    long l = 0;
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx)) << "a refused select has no rows";
    EXPECT_EQ(KVN_NO_DATA, client.GetData(hCnx, 1, l));

    // The connection goes on working.
    EXPECT_EQ(0, MustExecute(L"CREATE TABLE later (a INTEGER)"));
}

TEST_F(E2eSqlite, SendTestGoesOutAndTheConnectionStaysUsable) {
    EXPECT_EQ(KVN_NO_ERROR, client.SendTest(hCnx));
    // Its answer is stored like any other; the next request must not take
    // it for its own.
    EXPECT_TRUE(client.WaitForAnswer(hCnx, 10000)) << "the service answers the test request";
    EXPECT_TRUE(service->Running());
    MustExecute(L"CREATE TABLE after_test (a INTEGER)");
    EXPECT_EQ(1, MustExecute(L"INSERT INTO after_test VALUES (1)"));
    EXPECT_EQ(KVN_ERROR_HANDLE_CNX, client.SendTest(hCnx + 100));
}

TEST_F(E2eSqlite, ConnexionsOfOneSessionWorkInParallel) {
    MustExecute(L"CREATE TABLE parallel (worker INTEGER, n INTEGER)");
    constexpr int kWorkers = 4;
    constexpr int kEach = 15;
    int handles[kWorkers];
    for (int& h : handles) {
        h = client.GetConnexion();
        ASSERT_GT(h, 0);
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; ++w) {
        workers.emplace_back([&, w] {
            for (int i = 0; i < kEach; ++i) {
                const std::wstring sql =
                    L"INSERT INTO parallel VALUES (" + std::to_wstring(w) + L", " + std::to_wstring(i) + L")";
                int resultat = 0;
                if (client.Execute(handles[w], sql.c_str(), resultat) != KVN_NO_ERROR || resultat != 1) ++failures;
            }
            // Each connection keeps its own select.
            int resultat = 0;
            const std::wstring sql = L"SELECT n FROM parallel WHERE worker = " + std::to_wstring(w) + L" ORDER BY n";
            if (client.ExecuteSelect(handles[w], sql.c_str(), resultat) != KVN_NO_ERROR) ++failures;
            for (int i = 0; i < kEach; ++i) {
                long n = -1;
                if (client.Fetch(handles[w]) != KVN_NO_ERROR || client.GetData(handles[w], 1, n) != KVN_NO_ERROR ||
                    n != i) {
                    ++failures;
                }
            }
            if (client.Fetch(handles[w]) != KVN_NO_DATA) ++failures;
        });
    }
    for (std::thread& t : workers) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ((std::vector<long>{kWorkers * kEach}), SelectIds(L"SELECT COUNT(*) FROM parallel"));
}
