// korvaned's answers to database requests on a SQLite file, read value by
// value: the status and code of a refusal, the blocks of a select with their
// more-rows flag, and a row too large for one message. What the library makes
// of these answers is proven by the end-to-end tests.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "RunningService.h"
#include "ServiceLinks.h"

namespace {

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

    // Checks the answer's function and values: status, then `values` longs.
    void ExpectAnswer(int fonction, std::initializer_list<int> values) {
        CMsgSocket& m = cnx_->answer;
        EXPECT_EQ(fonction, m.GetFonction());
        int i = 0;
        for (int v : values) EXPECT_EQ(v, LongAt(m, i++)) << "value " << i - 1;
    }

    // Reads a block of rows (a select's first answer or a GetLine's) and
    // checks its rows and more-rows flag: the index of its first cell.
    int ExpectBlock(bool first, int rows, int more) {
        CMsgSocket& m = cnx_->answer;
        const int at = first ? 3 : 1;  // a select's answer has status, columns, status before
        ExpectAnswer(first ? KVN_EXECUTESELECT : KVN_GETLINE, {0});
        if (first) {
            EXPECT_EQ(0, LongAt(m, 2));
        }
        EXPECT_EQ(rows, LongAt(m, at));
        EXPECT_EQ(more, LongAt(m, at + 2));
        if (rows > 0) {
            EXPECT_EQ(at + 3 + rows * LongAt(m, at + 1), m.GetNbParametre());
        }
        return at + 3;
    }

    std::unique_ptr<RunningService> service_;
    std::unique_ptr<ApplicationLink> app_;
    std::unique_ptr<ConnexionLink> cnx_;
};

}  // namespace

TEST_F(ServiceDatabase, StatementsAnswerTheirStatusAndRefusalsTheOdbcCodeAndText) {
    ASSERT_TRUE(cnx_->ErrorText());
    EXPECT_TRUE(NullAt(cnx_->answer, 1)) << "no error yet";
    ASSERT_TRUE(cnx_->Execute(L"CREATE TABLE t (a INTEGER)"));
    ASSERT_TRUE(cnx_->Execute(L"INSERT INTO t VALUES (1), (2), (3)"));
    ExpectAnswer(KVN_EXECUTE, {0, 3});
    EXPECT_EQ(2, cnx_->answer.GetNbParametre());
    ASSERT_TRUE(cnx_->Send(cnx_->request.CreateExecRequete(L"DELETE FROM t WHERE a = 1")));
    ExpectAnswer(KVN_REQUETE_METABASE, {0});
    EXPECT_EQ(1, cnx_->answer.GetNbParametre()) << "a direct request answers its status only";

    // A refusal: -1, then the code; the text comes on request, in UTF-16.
    ASSERT_TRUE(cnx_->Execute(L"SELEC 1 FROM nowhere"));
    ExpectAnswer(KVN_EXECUTE, {KVN_ERROR_UNKNOWN, KVN_ERROR_ODBC});
    ASSERT_TRUE(cnx_->ErrorText());
    ExpectAnswer(KVN_GET_ODBC_ERROR_TEXT, {0});
    EXPECT_EQ(SQL_C_WCHAR, TypeAt(cnx_->answer, 1));
    EXPECT_NE(std::wstring::npos, TextAt(cnx_->answer, 1).find(L"syntax error"));
    ASSERT_TRUE(cnx_->Select(L"SELECT missing FROM nowhere"));
    ExpectAnswer(KVN_EXECUTESELECT, {KVN_ERROR_UNKNOWN, KVN_ERROR_ODBC});
    ASSERT_TRUE(cnx_->ErrorText());
    EXPECT_NE(std::wstring::npos, TextAt(cnx_->answer, 1).find(L"nowhere"));
}

TEST_F(ServiceDatabase, SelectStreamsItsRowsInBlocksWithTheMoreRowsFlag) {
    ASSERT_TRUE(cnx_->Execute(L"CREATE TABLE items (id INTEGER, name VARCHAR(40), price DOUBLE, note VARCHAR(20), "
                              L"made TIMESTAMP)"));
    // 25 rows; odd ids have a note, even ones a NULL; the last a 64-bit id and an empty name.
    ASSERT_TRUE(cnx_->Execute(
        L"INSERT INTO items WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 24) "
        L"SELECT i, 'row' || i, i * 1.5, CASE WHEN i % 2 THEN 'odd' END, '2006-03-07 14:05:09' FROM n "
        L"UNION ALL SELECT 5000000000, '', 0, NULL, NULL"));
    ASSERT_TRUE(cnx_->Select(L"SELECT id, name, price, note, made FROM items ORDER BY id"));
    int at = ExpectBlock(true, 10, 1);
    CMsgSocket& m = cnx_->answer;
    EXPECT_EQ(5, LongAt(m, 1)) << "the value beside the rows: the column count";
    EXPECT_EQ(5, LongAt(m, 4));
    EXPECT_EQ(1, LongAt(m, at));
    EXPECT_EQ(L"row1", TextAt(m, at + 1));
    EXPECT_DOUBLE_EQ(1.5, DoubleAt(m, at + 2));
    EXPECT_EQ(L"odd", TextAt(m, at + 3));
    CParam* made = nullptr;
    ASSERT_TRUE(m.GetParametre(at + 4, &made));
    EXPECT_EQ(SQL_C_TIMESTAMP, made->cType);
    const KvnTimestamp t = made->dateValeur;
    EXPECT_EQ((std::vector<int>{2006, 3, 7, 14, 5, 9}),
              (std::vector<int>{t.year, t.month, t.day, t.hour, t.minute, t.second}));
    EXPECT_TRUE(NullAt(m, at + 5 + 3)) << "second row: its note is NULL";

    // Rows asked for one at a time, then the default block.
    ASSERT_TRUE(cnx_->GetLine(1));
    EXPECT_EQ(11, LongAt(m, ExpectBlock(false, 1, 1)));
    ASSERT_TRUE(cnx_->GetLine());
    EXPECT_EQ(12, LongAt(m, ExpectBlock(false, 10, 1)));
    // The last block says that no row remains; asking again gives an empty block.
    ASSERT_TRUE(cnx_->GetLine());
    at = ExpectBlock(false, 4, 0);
    EXPECT_EQ(5000000000LL, BigAt(m, at + 3 * 5));
    EXPECT_EQ(L"", TextAt(m, at + 3 * 5 + 1));
    ASSERT_TRUE(cnx_->GetLine());
    ExpectBlock(false, 0, 0);

    // Released half read: the remaining rows are gone.
    ASSERT_TRUE(cnx_->Select(L"SELECT id FROM items ORDER BY id"));
    ExpectBlock(true, 10, 1);
    ASSERT_EQ(0, cnx_->request.CreateLibereConnexionSelect());
    ASSERT_EQ(1, cnx_->request.SendMessageW(cnx_->socket.Get(), -1, -1));
    ASSERT_TRUE(cnx_->GetLine());
    ExpectBlock(false, 0, 0);
    // An empty result is an empty first block.
    ASSERT_TRUE(cnx_->Select(L"SELECT id FROM items WHERE id < 0"));
    ExpectBlock(true, 0, 0);
    EXPECT_EQ(6, m.GetNbParametre());
}

TEST_F(ServiceDatabase, ARowTooLargeForOneMessageHasItsTextsCut) {
    // Five texts of 120000 characters: far beyond the 256000 bytes of a message.
    ASSERT_TRUE(cnx_->Select(L"SELECT hex(zeroblob(60000)), hex(zeroblob(60000)), hex(zeroblob(60000)), "
                             L"hex(zeroblob(60000)), hex(zeroblob(60000))"));
    const int at = ExpectBlock(true, 1, 0);
    std::size_t characters = 0;
    for (int c = 0; c < 5; ++c) {
        const std::wstring text = TextAt(cnx_->answer, at + c);
        EXPECT_FALSE(text.empty());
        EXPECT_EQ(std::wstring::npos, text.find_first_not_of(L'0'));
        characters += text.size();
    }
    EXPECT_LE(characters * 2, 256000u);
}
