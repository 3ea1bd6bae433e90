// The library's operations against korvaned on a SQLite file: statements
// with their row counts, selects of many blocks, every column reader, NULLs,
// bound values, direct requests, schema questions, the database's own error
// text, the test request, connections in parallel, and texts of every length.
#include <gtest/gtest.h>

#include <atomic>
#include <cwchar>
#include <string>
#include <thread>
#include <vector>

#include "E2eSession.h"

using e2e::Copy;
using e2e::Narrow;

namespace {

// Small blocks, so that a few dozen rows already take several exchanges.
constexpr int kBlockRows = 7;
// What Read gives where no row is current or the column does not exist.
const std::wstring kNoData = L"rc " + std::to_wstring(KVN_NO_DATA);

class E2eSqlite : public e2e::E2eTest {
protected:
    void SetUp() override {
        E2eTest::SetUp();
        Start(ServiceArguments(kBlockRows, {"--db-type", "3"}));
    }

    // A table of n rows: id 1..n, name "row<id>".
    void MakeRows(int n) {
        MustExecute(L"CREATE TABLE rows (id INTEGER PRIMARY KEY, name VARCHAR(20))");
        const std::wstring sql =
            L"INSERT INTO rows (id, name) WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
            L"WHERE i < " + std::to_wstring(n) + L") SELECT i, 'row' || i FROM n";
        EXPECT_EQ(n, MustExecute(sql.c_str()));
    }
};

}  // namespace

TEST_F(E2eSqlite, SessionConnexionsTheTestRequestAndASecondSessionAfterFree) {
    EXPECT_EQ(3, dbType) << "the database type the service announces";
    EXPECT_EQ(3, client.GetDBType());
    EXPECT_TRUE(client.IsAppliConnected());

    MakeRows(3);
    const int second = client.GetConnexion();
    ASSERT_GT(second, 0);
    EXPECT_NE(hCnx, second);
    EXPECT_TRUE(client.IsConnexionConnected(second));
    EXPECT_EQ((std::vector<long>{3}), SelectIds(L"SELECT COUNT(*) FROM rows", nullptr, second)) << "same file";
    EXPECT_EQ(KVN_NO_ERROR, client.FreeConnexion(second));

    EXPECT_EQ(KVN_NO_ERROR, client.SendTest(hCnx));
    // Its answer is stored like any other; the next request must not take it for its own.
    EXPECT_TRUE(client.WaitForAnswer(hCnx, 10000)) << "the service answers the test request";
    EXPECT_EQ(1, MustExecute(L"INSERT INTO rows VALUES (4, 'after the test')"));

    // A new session on the same service after Free: the data are still there.
    client.Free();
    EXPECT_FALSE(client.IsAppliConnected());
    ASSERT_EQ(KVN_NO_ERROR, client.Init(L"127.0.0.1", service->Port(), 0, L"e2e again", dbType, 0, nullptr,
                                        nullptr));
    hCnx = client.GetConnexion();
    ASSERT_GT(hCnx, 0);
    EXPECT_EQ((std::vector<long>{1, 2, 3, 4}), SelectIds(L"SELECT id FROM rows ORDER BY id"));
}

TEST_F(E2eSqlite, StatementsGiveTheRowsAffectedTheirStatusOrTheDatabasesText) {
    EXPECT_EQ("", ErrorText()) << "no error yet";
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
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx)) << "a refused select has no rows";
    EXPECT_EQ(kNoData, Read(1, 'l'));

    // The connection goes on working.
    MakeRows(10);
    EXPECT_EQ(4, MustExecute(L"UPDATE rows SET name = 'low' WHERE id <= 4"));
    EXPECT_EQ(0, MustExecute(L"DELETE FROM rows WHERE id > 100"));
    EXPECT_EQ(2, MustExecute(L"DELETE FROM rows WHERE id IN (9, 10)"));
    EXPECT_EQ(KVN_NO_ERROR, client.ExecuteRequete(hCnx, L"INSERT INTO rows VALUES (11, 'direct')"));
    EXPECT_EQ(KVN_ERROR_ODBC, client.ExecuteRequete(hCnx, L"INSERT INTO rows VALUES (11, 'twice')"));
    EXPECT_EQ((std::vector<long>{1, 2, 3, 4, 5, 6, 7, 8, 11}), SelectIds(L"SELECT id FROM rows ORDER BY id"));
}

TEST_F(E2eSqlite, SelectDeliversEveryRowAcrossManyBlocks) {
    MakeRows(50);
    // Rows asked for explicitly come after those already buffered, every row
    // once and in order across the blocks.
    int resultat = -1;
    CString byName(L"SELECT id, name FROM rows WHERE id <= 20 ORDER BY id");
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, byName, resultat));
    EXPECT_EQ(2, resultat) << "the service gives the number of columns beside the rows";
    ASSERT_EQ(KVN_NO_ERROR, client.GetLine(hCnx, 2));
    for (long want = 1; want <= 20; ++want) {
        ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx)) << "row " << want;
        ASSERT_EQ(std::to_wstring(want), Read(1, 'l'));
        ASSERT_EQ(L"row" + std::to_wstring(want), Read(2, 'x'));
    }
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));
    EXPECT_EQ(kNoData, Read(1, 'l')) << "no row is current after the end";
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx)) << "asking again finds nothing more";
    EXPECT_EQ(KVN_NO_ERROR, client.LibereStatment(hCnx));

    // Leaving a select half read: released, the next select starts afresh.
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"SELECT id FROM rows ORDER BY id DESC", resultat));
    for (int i = 0; i < kBlockRows + 3; ++i) ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx));
    EXPECT_EQ(std::to_wstring(50 - kBlockRows - 2), Read(1, 'l'));
    EXPECT_EQ(KVN_NO_ERROR, client.LibereStatment(hCnx));
    EXPECT_EQ((std::vector<long>{50}), SelectIds(L"SELECT COUNT(*) FROM rows"));

    // An empty result is a success whose first Fetch finds no row.
    int end = 0;
    EXPECT_TRUE(SelectIds(L"SELECT id FROM rows WHERE id > 1000", &end).empty());
    EXPECT_EQ(KVN_NO_DATA, end);

    // A statement without result set through the select path: the value
    // says so, with the rows it affected (-1 - n), and no row comes.
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"UPDATE rows SET name = 'y' WHERE id <= 3", resultat));
    EXPECT_EQ(-4, resultat);
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"SELECT id FROM rows WHERE id < 0", resultat));
    EXPECT_EQ(1, resultat) << "an empty result set still has its column";

    // A statement empties the rows of the select before it.
    SelectOne(L"SELECT id FROM rows");
    MustExecute(L"UPDATE rows SET name = 'x' WHERE id = 1");
    EXPECT_EQ(kNoData, Read(1, 'l'));
}

TEST_F(E2eSqlite, GetDataConvertsEveryColumnTypeAndGivesEachReadersNullValue) {
    MustExecute(L"CREATE TABLE typed (i INTEGER, sh INTEGER, big INTEGER, d DOUBLE, dn DOUBLE, "
                L"g VARCHAR(36), ts TIMESTAMP, t VARCHAR(40), digits VARCHAR(10), sign VARCHAR(10), "
                L"dec VARCHAR(10), empty VARCHAR(10))");
    MustExecute(L"INSERT INTO typed VALUES (42, -1234, 5000000000, 2.9, -2.9, "
                L"'6B29FC40-CA47-1067-B31D-00DD010662DA', '2006-03-07 14:05:09', "
                L"'caf\u00e9 \u20ac', '42', '-42', '3.5', ''), "
                L"(NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL)");
    SelectOne(L"SELECT * FROM typed ORDER BY i IS NULL");
    const std::wstring wrongType = L"rc " + std::to_wstring(KVN_ERROR_DATATYPE);
    ExpectReads({
        {1, 'l', L"42"}, {2, 's', L"-1234"}, {3, 'b', L"5000000000"}, {4, 'd', L"2.9"},
        // Texts stay texts (digits only make a number, a sign or a point do not;
        // an empty one leaves the number alone); a timestamp is no number. The
        // library's other conversions are proven against the scripted peer.
        {9, 'l', L"42"}, {10, 'l', wrongType}, {11, 'd', wrongType}, {12, 'l', L"5"}, {7, 'l', wrongType},
        // A GUID held as text, the timestamp, texts in the three string forms.
        {6, 'g', L"6b29fc40-ca47-1067-b31d-00dd010662da"}, {7, 't', L"2006-03-07 14:05:09.000"},
        {7, 'x', L"2006-03-07 14:05:09"}, {8, 'x', L"caf\u00e9 \u20ac"}, {8, 'c', L"caf\u00e9 \u20ac"},
        {8, 'w', L"caf\u00e9 \u20ac"}, {12, 'x', L""}, {13, 'd', kNoData},
    });
    wchar_t buffer[16];
    std::wmemset(buffer, L'#', 16);
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 8, buffer));
    EXPECT_EQ(L'#', buffer[7]) << "nothing written past the terminator";

    // The values themselves, with the types the service gave them.
    for (int col : {1, 3, 4, 7, 8}) {
        CParam p;
        EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, col, p));
        const int type = static_cast<signed char>(p.cType);
        const int expected[] = {0, SQL_C_LONG, 0, SQL_C_SBIGINT, SQL_C_DOUBLE, 0, 0, SQL_C_TIMESTAMP, SQL_C_WCHAR};
        EXPECT_TRUE(type == expected[col] || (col == 8 && type == SQL_C_CHAR)) << col << ": " << type;
        EXPECT_FALSE(Copy(p.bNull));
        EXPECT_TRUE(col != 3 || Copy(p.valNum.llVal) == 5000000000LL);
        EXPECT_TRUE(col != 7 || Copy(p.dateValeur.year) == 2006);
        EXPECT_TRUE(col != 8 || std::wstring(Copy(p.pszValeur) ? Copy(p.pszValeur) : L"") == L"caf\u00e9 \u20ac");
    }

    // A row of NULLs: each reader gives its NULL value.
    ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx));
    ExpectReads({{1, 'l', L"NULL 101"}, {1, 's', L"NULL 5"} /* the short is left alone */, {1, 'b', L"NULL 101"},
                 {4, 'd', L"NULL 101"}, {6, 'g', L"NULL 00000000-0000-0000-0000-000000000000"},
                 {7, 't', L"NULL 0000-00-00 00:00:00.000"}, {8, 'x', L"NULL "}, {7, 'c', L"NULL "},
                 {1, 'w', L"NULL "}});
    CParam p;
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 4, p));
    EXPECT_TRUE(Copy(p.bNull));
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));
    EXPECT_EQ(kNoData, Read(1, 'l')) << "no row is current after the end";
}

TEST_F(E2eSqlite, BoundValuesOfEveryTypeReachTheDatabase) {
    MustExecute(L"CREATE TABLE bound (id INTEGER PRIMARY KEY, big INTEGER, d DOUBLE, ts TIMESTAMP, "
                L"w VARCHAR(40), c VARCHAR(40), n VARCHAR(10), u VARCHAR(10), cut VARCHAR(10), astral VARCHAR(10))");
    std::int32_t id = 7;
    std::int64_t big = -5000000000LL;
    double d = 2.25;
    KvnTimestamp ts{2024, 2, 29, 23, 59, 58, 0};
    wchar_t wide[] = L"caf\u00e9 \u20ac";
    wchar_t narrow[] = L"plain";
    std::int32_t unused = 1;
    wchar_t longer[] = L"abcdef";
    // Characters beyond U+FFFF take two UTF-16 code units on the wire but one
    // wide character where wchar_t is 32 bits: the size sent must count units.
    wchar_t astral[] = L"a\U0001F680b\U00010348";
    struct Bind {
        int type;
        void* value;
        std::size_t size;
    };
    // Parameter 7 is a NULL, 8 of no known type (a NULL too), 9 read up to 3 characters,
    // 10 holds characters beyond U+FFFF.
    const Bind binds[] = {{SQL_C_LONG, &id, 4},      {SQL_C_SBIGINT, &big, 8},       {SQL_C_DOUBLE, &d, 8},
                          {SQL_C_TIMESTAMP, &ts, sizeof ts}, {SQL_C_WCHAR, wide, std::wcslen(wide)},
                          {SQL_C_CHAR, narrow, 5},   {SQL_C_LONG, nullptr, 4},       {3, &unused, 4},
                          {SQL_C_WCHAR, longer, 3},  {SQL_C_WCHAR, astral, std::wcslen(astral)}};
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(KVN_NO_ERROR, client.BindParameter(hCnx, i + 1, binds[i].type, binds[i].value, binds[i].size)) << i;
    }
    int resultat = -1;
    ASSERT_EQ(KVN_NO_ERROR,
              client.ExecuteBind(hCnx, L"INSERT INTO bound VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", resultat))
        << ErrorText();
    EXPECT_EQ(1, resultat);
    SelectOne(L"SELECT id, big, d, ts, w, c, n, u, cut, astral FROM bound");
    ExpectReads({{1, 'l', L"7"}, {2, 'b', L"-5000000000"}, {3, 'd', L"2.25"}, {4, 't', L"2024-02-29 23:59:58.000"},
                 {5, 'x', wide}, {6, 'x', L"plain"}, {7, 'x', L"NULL "}, {8, 'x', L"NULL "}, {9, 'x', L"abc"},
                 {10, 'x', astral}, {10, 'w', astral}});

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
    EXPECT_EQ(L"-0.5", Read(1, 'd'));
}

TEST_F(E2eSqlite, SchemaQuestionsUseTheDatabaseCatalog) {
    MustExecute(L"CREATE TABLE items (id INTEGER, name VARCHAR(40), price DOUBLE)");
    struct Question {
        const wchar_t* table;
        const wchar_t* column;  // nullptr: IsTableExist
        int existe;
    };
    // "_" is a wildcard of the catalog functions: the name must match whole.
    for (const Question& q : {Question{L"items", nullptr, 1}, Question{L"item_", nullptr, 0},
                              Question{L"nowhere", nullptr, 0}, Question{L"items", L"price", 1},
                              Question{L"items", L"cost", 0}}) {
        SCOPED_TRACE(Narrow(q.table) + "." + Narrow(q.column));
        int existe = -1;
        EXPECT_EQ(KVN_NO_ERROR, q.column ? client.IsColumnExist(hCnx, q.table, q.column, existe)
                                         : client.IsTableExist(hCnx, q.table, existe));
        EXPECT_EQ(q.existe, existe);
    }
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

TEST_F(E2eSqlite, ConnexionsOfOneSessionWorkInParallelEachWithItsOwnSelect) {
    MustExecute(L"CREATE TABLE parallel (worker INTEGER, n INTEGER)");
    constexpr int kWorkers = 4, kEach = 15;
    int handles[kWorkers];
    for (int& h : handles) ASSERT_GT(h = client.GetConnexion(), 0);
    std::atomic<int> failures{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; ++w) {
        workers.emplace_back([&, w, h = handles[w]] {
            const std::wstring worker = std::to_wstring(w);
            int resultat = 0;
            for (int i = 0; i < kEach; ++i) {
                const std::wstring sql = L"INSERT INTO parallel VALUES (" + worker + L", " + std::to_wstring(i) + L")";
                if (client.Execute(h, sql.c_str(), resultat) != KVN_NO_ERROR || resultat != 1) ++failures;
            }
            const std::wstring sql = L"SELECT n FROM parallel WHERE worker = " + worker + L" ORDER BY n";
            if (client.ExecuteSelect(h, sql.c_str(), resultat) != KVN_NO_ERROR) ++failures;
            for (long i = 0, n = -1; i < kEach; ++i) {
                if (client.Fetch(h) != KVN_NO_ERROR || client.GetData(h, 1, n) != KVN_NO_ERROR || n != i) ++failures;
            }
            if (client.Fetch(h) != KVN_NO_DATA) ++failures;
        });
    }
    for (std::thread& t : workers) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ((std::vector<long>{kWorkers * kEach}), SelectIds(L"SELECT COUNT(*) FROM parallel"));
}

// The service keeps repeated statements prepared: they stay right when they
// fail, when the table under them is made anew, and when many others have
// come between.
TEST_F(E2eSqlite, RepeatedStatementsStayRightThroughFailuresSchemaChangesAndManyOthers) {
    MustExecute(L"CREATE TABLE counter (id INTEGER PRIMARY KEY, v INTEGER)");
    const wchar_t* bump = L"UPDATE counter SET v = v + 1 WHERE id = 1";
    const wchar_t* first = L"INSERT INTO counter VALUES (1, 0)";
    EXPECT_EQ(1, MustExecute(first));
    for (int i = 0; i < 5; ++i) EXPECT_EQ(1, MustExecute(bump));
    for (int i = 0; i < 2; ++i) {
        int resultat = 0;
        EXPECT_EQ(KVN_ERROR_ODBC, client.Execute(hCnx, first, resultat)) << "the key is taken, every time";
        EXPECT_NE(std::string::npos, ErrorText().find("UNIQUE")) << ErrorText();
    }
    MustExecute(L"DROP TABLE counter");
    MustExecute(L"CREATE TABLE counter (id INTEGER PRIMARY KEY, label VARCHAR(10), v INTEGER)");
    MustExecute(L"INSERT INTO counter VALUES (1, 'a', 10)");
    EXPECT_EQ(1, MustExecute(bump)) << "the statement kept follows the new table";
    for (int i = 1; i <= 40; ++i) {
        const std::wstring other = L"UPDATE counter SET v = v + " + std::to_wstring(i) + L" WHERE id = 1";
        EXPECT_EQ(1, MustExecute(other.c_str()));
    }
    EXPECT_EQ(1, MustExecute(bump));
    EXPECT_EQ((std::vector<long>{10 + 1 + 40 * 41 / 2 + 1}), SelectIds(L"SELECT v FROM counter"));
}

// Rows come from the database a rowset at a time into buffers sized by the
// columns' declared widths, which SQLite does not enforce: texts far longer
// than their column come whole (up to what a message holds), NULLs stay
// NULLs, a statement run between two blocks leaves the select alone, and a
// row too large for a message has its texts cut.
TEST_F(E2eSqlite, TextsLongerThanTheirColumnComeWholeAcrossRowsetsAndBlocks) {
    MustExecute(L"CREATE TABLE texts (id INTEGER, t VARCHAR(10), n INTEGER)");
    // Every 97th text 600 characters, the 300th 70000 (cut at 32767 on the
    // wire); every other n NULL.
    EXPECT_EQ(600, MustExecute(L"INSERT INTO texts WITH RECURSIVE k(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM k "
                               L"WHERE i < 600) SELECT i, CASE WHEN i = 300 THEN hex(zeroblob(35000)) WHEN i % 97 = 0 "
                               L"THEN hex(zeroblob(300)) ELSE 'r' || i END, CASE WHEN i % 2 = 1 THEN NULL ELSE i END "
                               L"FROM k"));
    int resultat = 0;
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"SELECT id, t, n FROM texts ORDER BY id", resultat));
    for (long id = 1; id <= 600; ++id) {
        ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx)) << "row " << id;
        ASSERT_EQ(std::to_wstring(id), Read(1, 'l'));
        const std::wstring text = Read(2, 'x');
        if (id == 300) {
            EXPECT_EQ(std::wstring(32767, L'0'), text);
        } else if (id % 97 == 0) {
            EXPECT_EQ(std::wstring(600, L'0'), text) << "row " << id;
        } else {
            EXPECT_EQ(L"r" + std::to_wstring(id), text);
        }
        EXPECT_EQ(id % 2 ? L"NULL 101" : std::to_wstring(id), Read(3, 'l')) << "row " << id;
        // Between two blocks, while the next one is made ready.
        if (id == 100) {
            ASSERT_EQ(KVN_NO_ERROR, client.ExecuteRequete(hCnx, L"CREATE TABLE meanwhile (a INTEGER)"));
            ASSERT_EQ(KVN_NO_ERROR, client.GetLine(hCnx, 3));
        }
    }
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));

    // Five texts of 120000 characters, far beyond the 256000 bytes of a
    // message: cut so that their row fits in one.
    SelectOne(L"SELECT hex(zeroblob(60000)), hex(zeroblob(60000)), hex(zeroblob(60000)), hex(zeroblob(60000)), "
              L"hex(zeroblob(60000))");
    std::size_t characters = 0;
    for (int c = 1; c <= 5; ++c) {
        const std::wstring text = Read(c, 'x');
        EXPECT_FALSE(text.empty());
        EXPECT_EQ(std::wstring::npos, text.find_first_not_of(L'0')) << "column " << c;
        characters += text.size();
    }
    EXPECT_LE(characters * 2, 256000u);
    EXPECT_EQ(KVN_NO_DATA, client.Fetch(hCnx));
}
