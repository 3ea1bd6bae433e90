// korvaned's database requests on a SQLite file: statements, selects in
// blocks, bound values, schema questions and the diagnostic text, read from
// the answers as the library's receivers read them.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "RunningService.h"
#include "ServiceLinks.h"

namespace {

constexpr int kStatusOk = 0;

class ServiceDatabase : public ::testing::Test {
protected:
    void SetUp() override {
        service_ = std::make_unique<RunningService>(std::vector<std::string>{"--block-rows", "10"});
        ASSERT_NE(0, service_->Port());
        app_ = std::make_unique<ApplicationLink>(service_->Port());
        ASSERT_EQ(0, app_->result);
        cnx_ = std::make_unique<ConnexionLink>(service_->Port(), app_->IdApplication(), 1);
        ASSERT_EQ(0, cnx_->result);
    }

    // Runs a statement that must succeed; the rows it affected.
    int MustExecute(const wchar_t* sql) {
        if (!cnx_->Execute(sql)) return -1;
        EXPECT_EQ(kStatusOk, LongAt(cnx_->answer, 0)) << "statement refused";
        return LongAt(cnx_->answer, 1);
    }

    // A table of n rows: id 1..n, name "row<id>", price id * 1.5, NULL note
    // on even ids.
    void MakeItems(int n) {
        MustExecute(L"CREATE TABLE items (id INTEGER PRIMARY KEY, name VARCHAR(40), price DOUBLE, "
                    L"note VARCHAR(20), made TIMESTAMP)");
        for (int id = 1; id <= n; ++id) {
            std::wstring sql = L"INSERT INTO items VALUES (" + std::to_wstring(id) + L", 'row" +
                               std::to_wstring(id) + L"', " + std::to_wstring(id * 1.5) + L", " +
                               (id % 2 ? L"'odd'" : L"NULL") + L", '2006-03-07 14:05:09')";
            ASSERT_EQ(1, MustExecute(sql.c_str()));
        }
    }

    std::unique_ptr<RunningService> service_;
    std::unique_ptr<ApplicationLink> app_;
    std::unique_ptr<ConnexionLink> cnx_;
};

// Values of a block: status, rows, columns, more-rows flag, then the cells
// from `first` on.
struct Block {
    int rows;
    int columns;
    int more;
    int first;
};

Block ReadSelectBlock(CMsgSocket& m) {
    EXPECT_EQ(KVN_EXECUTESELECT, m.GetFonction());
    EXPECT_EQ(kStatusOk, LongAt(m, 0));
    EXPECT_EQ(kStatusOk, LongAt(m, 2));
    return Block{LongAt(m, 3), LongAt(m, 4), LongAt(m, 5), 6};
}

Block ReadLineBlock(CMsgSocket& m) {
    EXPECT_EQ(KVN_GETLINE, m.GetFonction());
    EXPECT_EQ(kStatusOk, LongAt(m, 0));
    return Block{LongAt(m, 1), LongAt(m, 2), LongAt(m, 3), 4};
}

}  // namespace

TEST_F(ServiceDatabase, ExecuteAnswersTheRowsAffected) {
    MakeItems(3);
    EXPECT_EQ(2, MustExecute(L"UPDATE items SET note = 'x' WHERE id >= 2"));
    EXPECT_EQ(0, MustExecute(L"DELETE FROM items WHERE id > 100"));
    EXPECT_EQ(KVN_EXECUTE, cnx_->answer.GetFonction());
    EXPECT_EQ(2, cnx_->answer.GetNbParametre());
}

TEST_F(ServiceDatabase, RefusedStatementGivesTheOdbcErrorAndItsText) {
    ASSERT_TRUE(cnx_->ErrorText());
    EXPECT_EQ(kStatusOk, LongAt(cnx_->answer, 0));
    EXPECT_TRUE(NullAt(cnx_->answer, 1)) << "no error yet";

    ASSERT_TRUE(cnx_->Execute(L"SELEC 1 FROM nowhere"));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, LongAt(cnx_->answer, 0));
    EXPECT_EQ(KVN_ERROR_ODBC, LongAt(cnx_->answer, 1));

    ASSERT_TRUE(cnx_->ErrorText());
    EXPECT_EQ(KVN_GET_ODBC_ERROR_TEXT, cnx_->answer.GetFonction());
    EXPECT_EQ(kStatusOk, LongAt(cnx_->answer, 0));
    const std::wstring text = TextAt(cnx_->answer, 1);
    EXPECT_NE(std::wstring::npos, text.find(L"syntax error")) << std::string(text.begin(), text.end());
    EXPECT_EQ(SQL_C_WCHAR, TypeAt(cnx_->answer, 1));

    // The same select refused as a select.
    ASSERT_TRUE(cnx_->Select(L"SELECT missing FROM nowhere"));
    EXPECT_EQ(KVN_ERROR_UNKNOWN, LongAt(cnx_->answer, 0));
    EXPECT_EQ(KVN_ERROR_ODBC, LongAt(cnx_->answer, 1));
    ASSERT_TRUE(cnx_->ErrorText());
    EXPECT_NE(std::wstring::npos, TextAt(cnx_->answer, 1).find(L"nowhere"));
}

TEST_F(ServiceDatabase, SelectStreamsItsRowsInBlocksWithTheMoreRowsFlag) {
    MakeItems(25);
    ASSERT_TRUE(cnx_->Select(L"SELECT id, name, price, note, made FROM items ORDER BY id"));
    Block b = ReadSelectBlock(cnx_->answer);
    EXPECT_EQ(5, LongAt(cnx_->answer, 1)) << "the value beside the rows: the column count";
    ASSERT_EQ(10, b.rows);
    ASSERT_EQ(5, b.columns);
    EXPECT_EQ(1, b.more);
    ASSERT_EQ(b.first + 10 * 5, cnx_->answer.GetNbParametre());
    // First row: every kind of value.
    EXPECT_EQ(1, LongAt(cnx_->answer, b.first));
    EXPECT_EQ(L"row1", TextAt(cnx_->answer, b.first + 1));
    EXPECT_DOUBLE_EQ(1.5, DoubleAt(cnx_->answer, b.first + 2));
    EXPECT_EQ(L"odd", TextAt(cnx_->answer, b.first + 3));
    CParam* made = nullptr;
    ASSERT_TRUE(cnx_->answer.GetParametre(b.first + 4, &made));
    EXPECT_EQ(SQL_C_TIMESTAMP, made->cType);
    EXPECT_EQ(2006, static_cast<int>(made->dateValeur.year));
    EXPECT_EQ(3, static_cast<int>(made->dateValeur.month));
    EXPECT_EQ(7, static_cast<int>(made->dateValeur.day));
    EXPECT_EQ(14, static_cast<int>(made->dateValeur.hour));
    EXPECT_EQ(9, static_cast<int>(made->dateValeur.second));
    // Second row: its note is NULL.
    EXPECT_TRUE(NullAt(cnx_->answer, b.first + 5 + 3));

    ASSERT_TRUE(cnx_->GetLine());
    b = ReadLineBlock(cnx_->answer);
    EXPECT_EQ(10, b.rows);
    EXPECT_EQ(1, b.more);
    EXPECT_EQ(11, LongAt(cnx_->answer, b.first));

    // The last block says that no row remains.
    ASSERT_TRUE(cnx_->GetLine());
    b = ReadLineBlock(cnx_->answer);
    EXPECT_EQ(5, b.rows);
    EXPECT_EQ(0, b.more);
    EXPECT_EQ(25, LongAt(cnx_->answer, b.first + 4 * 5));

    // Asking again gives an empty block: the end of the rows.
    ASSERT_TRUE(cnx_->GetLine());
    b = ReadLineBlock(cnx_->answer);
    EXPECT_EQ(0, b.rows);
    EXPECT_EQ(0, b.more);
}

TEST_F(ServiceDatabase, SelectBlocksFollowTheRowsAskedAndTheRelease) {
    MakeItems(12);
    ASSERT_TRUE(cnx_->Select(L"SELECT id FROM items ORDER BY id"));
    EXPECT_EQ(10, ReadSelectBlock(cnx_->answer).rows);
    ASSERT_TRUE(cnx_->GetLine(1));
    Block b = ReadLineBlock(cnx_->answer);
    EXPECT_EQ(1, b.rows);
    EXPECT_EQ(1, b.more);
    EXPECT_EQ(11, LongAt(cnx_->answer, b.first));

    // Released: the remaining row is gone.
    ASSERT_EQ(0, cnx_->request.CreateLibereConnexionSelect());
    ASSERT_EQ(1, cnx_->request.SendMessageW(cnx_->socket.Get(), -1, -1));
    ASSERT_TRUE(cnx_->GetLine());
    EXPECT_EQ(0, ReadLineBlock(cnx_->answer).rows);
}

TEST_F(ServiceDatabase, EmptySelectIsAnEmptyFirstBlock) {
    MakeItems(2);
    ASSERT_TRUE(cnx_->Select(L"SELECT id FROM items WHERE id > 100"));
    Block b = ReadSelectBlock(cnx_->answer);
    EXPECT_EQ(0, b.rows);
    EXPECT_EQ(0, b.more);
    EXPECT_EQ(6, cnx_->answer.GetNbParametre());
}

TEST_F(ServiceDatabase, LargeValuesAreIntegersOf64BitsAndEmptyTextsSurvive) {
    MustExecute(L"CREATE TABLE big (n INTEGER, t VARCHAR(10))");
    MustExecute(L"INSERT INTO big VALUES (5000000000, '')");
    ASSERT_TRUE(cnx_->Select(L"SELECT n, t FROM big"));
    Block b = ReadSelectBlock(cnx_->answer);
    ASSERT_EQ(1, b.rows);
    EXPECT_EQ(5000000000LL, BigAt(cnx_->answer, b.first));
    EXPECT_EQ(L"", TextAt(cnx_->answer, b.first + 1));
}

TEST_F(ServiceDatabase, ARowTooLargeForOneMessageHasItsTextsCut) {
    // Five texts of 120000 characters: far beyond the 256000 bytes of a message.
    ASSERT_TRUE(cnx_->Select(L"SELECT hex(zeroblob(60000)), hex(zeroblob(60000)), hex(zeroblob(60000)), "
                             L"hex(zeroblob(60000)), hex(zeroblob(60000))"));
    Block b = ReadSelectBlock(cnx_->answer);
    ASSERT_EQ(1, b.rows);
    std::size_t characters = 0;
    for (int c = 0; c < 5; ++c) {
        const std::wstring text = TextAt(cnx_->answer, b.first + c);
        EXPECT_FALSE(text.empty());
        EXPECT_EQ(std::wstring::npos, text.find_first_not_of(L'0'));
        characters += text.size();
    }
    EXPECT_LE(characters * 2, 256000u);
}

TEST_F(ServiceDatabase, BoundValuesReachTheStatement) {
    MakeItems(0);
    // As the library builds them: a SQL_C_LONG bound value travels with size 8.
    CParam values[5];
    values[0].cType = SQL_C_LONG, values[0].nTaille = 8, values[0].valNum.lVal = 42;
    wchar_t name[] = L"caf\u00e9 \u20ac";
    values[1].cType = SQL_C_WCHAR, values[1].nTaille = 6, values[1].pszValeur = new wchar_t[7];
    std::wcscpy(values[1].pszValeur, name);
    values[2].cType = SQL_C_DOUBLE, values[2].nTaille = 8, values[2].valNum.dVal = 2.25;
    values[3].cType = SQL_C_CHAR, values[3].bNull = 1;
    values[4].cType = SQL_C_TIMESTAMP, values[4].nTaille = 18;
    values[4].dateValeur = KvnTimestamp{2024, 2, 29, 23, 59, 58, 0};
    ASSERT_EQ(0, cnx_->request.CreateExecBind(L"INSERT INTO items VALUES (?, ?, ?, ?, ?)", 5, values));
    ASSERT_TRUE(cnx_->Exchange());
    EXPECT_EQ(KVN_EXECUTEBIND, cnx_->answer.GetFonction());
    EXPECT_EQ(kStatusOk, LongAt(cnx_->answer, 0));
    EXPECT_EQ(1, LongAt(cnx_->answer, 1));

    ASSERT_TRUE(cnx_->Select(L"SELECT id, name, price, note, made FROM items"));
    Block b = ReadSelectBlock(cnx_->answer);
    ASSERT_EQ(1, b.rows);
    EXPECT_EQ(42, LongAt(cnx_->answer, b.first));
    EXPECT_EQ(name, TextAt(cnx_->answer, b.first + 1));
    EXPECT_DOUBLE_EQ(2.25, DoubleAt(cnx_->answer, b.first + 2));
    EXPECT_TRUE(NullAt(cnx_->answer, b.first + 3));
    CParam* made = nullptr;
    ASSERT_TRUE(cnx_->answer.GetParametre(b.first + 4, &made));
    EXPECT_EQ(2024, static_cast<int>(made->dateValeur.year));
    EXPECT_EQ(29, static_cast<int>(made->dateValeur.day));
    EXPECT_EQ(58, static_cast<int>(made->dateValeur.second));

    // A bound statement the database refuses.
    ASSERT_EQ(0, cnx_->request.CreateExecBind(L"INSERT INTO items VALUES (?, ?, ?, ?, ?)", 5, values));
    ASSERT_TRUE(cnx_->Exchange());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, LongAt(cnx_->answer, 0));
    EXPECT_EQ(KVN_ERROR_ODBC, LongAt(cnx_->answer, 1));
}

TEST_F(ServiceDatabase, SchemaQuestionsUseTheCatalog) {
    MakeItems(0);
    ASSERT_EQ(0, cnx_->request.CreateIsTableExist(L"items"));
    ASSERT_TRUE(cnx_->Exchange());
    EXPECT_EQ(kStatusOk, LongAt(cnx_->answer, 0));
    EXPECT_EQ(1, LongAt(cnx_->answer, 1));
    // "_" is a wildcard of the catalog functions; the name must match whole.
    ASSERT_EQ(0, cnx_->request.CreateIsTableExist(L"item_"));
    ASSERT_TRUE(cnx_->Exchange());
    EXPECT_EQ(0, LongAt(cnx_->answer, 1));

    ASSERT_EQ(0, cnx_->request.CreateIsColumnExist(L"items", L"price"));
    ASSERT_TRUE(cnx_->Exchange());
    EXPECT_EQ(1, LongAt(cnx_->answer, 1));
    ASSERT_EQ(0, cnx_->request.CreateIsColumnExist(L"items", L"cost"));
    ASSERT_TRUE(cnx_->Exchange());
    EXPECT_EQ(0, LongAt(cnx_->answer, 1));

    ASSERT_EQ(0, cnx_->request.CreateGetColumns(L"items"));
    ASSERT_TRUE(cnx_->Exchange());
    EXPECT_EQ(KVN_GETCOLUMNS, cnx_->answer.GetFonction());
    EXPECT_EQ(kStatusOk, LongAt(cnx_->answer, 0));
    EXPECT_EQ(5, LongAt(cnx_->answer, 1));
    EXPECT_EQ(L"id;name;price;note;made", TextAt(cnx_->answer, 2));
    const std::wstring types = TextAt(cnx_->answer, 3);
    EXPECT_EQ(0u, types.find(L"INTEGER;VARCHAR")) << std::string(types.begin(), types.end());

    ASSERT_EQ(0, cnx_->request.CreateGetColumns(L"nowhere"));
    ASSERT_TRUE(cnx_->Exchange());
    EXPECT_EQ(KVN_ERROR_UNKNOWN, LongAt(cnx_->answer, 0));
    EXPECT_EQ(KVN_ERROR_TABLE_NOT_FOUND, LongAt(cnx_->answer, 1));
}

TEST_F(ServiceDatabase, DirectRequestAnswersItsStatusOnly) {
    ASSERT_EQ(0, cnx_->request.CreateExecRequete(L"CREATE TABLE t (a INTEGER)"));
    ASSERT_TRUE(cnx_->Exchange());
    EXPECT_EQ(KVN_REQUETE_METABASE, cnx_->answer.GetFonction());
    EXPECT_EQ(1, cnx_->answer.GetNbParametre());
    EXPECT_EQ(kStatusOk, LongAt(cnx_->answer, 0));
}

TEST_F(ServiceDatabase, TwoConnectionsShareTheDatabaseFile) {
    MakeItems(3);
    ConnexionLink second(service_->Port(), app_->IdApplication(), 2);
    ASSERT_EQ(0, second.result);
    ASSERT_TRUE(second.Select(L"SELECT COUNT(*) FROM items"));
    Block b = ReadSelectBlock(second.answer);
    ASSERT_EQ(1, b.rows);
    EXPECT_EQ(3, LongAt(second.answer, b.first));
}
