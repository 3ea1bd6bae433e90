// The row buffer of a select: the order in which Fetch delivers and drops
// rows, columns outside the row, rows that own their values, and rows
// appended from another thread.
#include <gtest/gtest.h>

#include <chrono>
#include <cwchar>
#include <thread>

#include <korvane/CSelectBuffer.h>
#include <korvane/KvnDefs.h>

namespace {

CParam* LongValue(int v) {
    CParam* p = new CParam();
    p->cType = SQL_C_LONG;
    p->nTaille = 8;
    p->valNum.lVal = v;
    return p;
}

CParam* TextValue(const wchar_t* text) {
    CParam* p = new CParam();
    p->cType = SQL_C_WCHAR;
    p->nTaille = static_cast<short>(std::wcslen(text));
    p->pszValeur = new wchar_t[std::wcslen(text) + 1];
    std::wcscpy(p->pszValeur, text);
    return p;
}

// A row whose first column holds id and whose second holds a text.
CLigneSelect* Row(int id) {
    CLigneSelect* row = new CLigneSelect();
    row->AddParam(LongValue(id));
    row->AddParam(TextValue(L"row"));
    return row;
}

int FirstColumn(CSelectBuffer& buffer) {
    CParam* p = nullptr;
    if (buffer.GetData(1, &p) != 0 || !p) return -1;
    return p->valNum.lVal;
}

// Fetches and returns the first column of the new current row, or -1.
int FetchFirst(CSelectBuffer& buffer, int& remaining) {
    return buffer.Fetch(remaining) == 0 ? FirstColumn(buffer) : -1;
}

TEST(SelectBuffer, FetchWalksTheRowsAndDropsEachAfterItWasCurrent) {
    CSelectBuffer buffer;
    int remaining = 77;
    EXPECT_EQ(KVN_NO_DATA, buffer.Fetch(remaining));
    EXPECT_EQ(77, remaining);

    for (int i = 1; i <= 3; i++) buffer.AddLigne(Row(i));
    EXPECT_EQ(1, FirstColumn(buffer)) << "before any Fetch the head row is read";
    CParam* untouched = nullptr;
    for (int column : {0, -1, 3}) EXPECT_EQ(KVN_NO_DATA, buffer.GetData(column, &untouched)) << column;
    EXPECT_EQ(nullptr, untouched);
    for (int i = 1; i <= 3; i++) {
        EXPECT_EQ(i, FetchFirst(buffer, remaining));  // the first Fetch deletes nothing
        EXPECT_EQ(3 - i, remaining);
        EXPECT_EQ(3 - i, buffer.GetNbLigne());
    }
    remaining = 55;
    EXPECT_EQ(KVN_NO_DATA, buffer.Fetch(remaining));
    EXPECT_EQ(55, remaining);
    EXPECT_EQ(-1, FirstColumn(buffer));

    // Rows appended while the last one is current follow it.
    buffer.AddLigne(Row(4));
    ASSERT_EQ(4, FetchFirst(buffer, remaining));
    buffer.AddLigne(Row(5));
    buffer.AddLigne(Row(6));
    EXPECT_EQ(2, buffer.GetNbLigne());
    EXPECT_EQ(5, FetchFirst(buffer, remaining));
    EXPECT_EQ(1, remaining);

    // Dropping the current row by hand: the next one stands in its place,
    // and on an empty queue nothing happens.
    buffer.SuppLigne();
    EXPECT_EQ(6, FirstColumn(buffer));
    EXPECT_EQ(0, buffer.GetNbLigne());
    buffer.SuppLigne();
    buffer.SuppLigne();
    buffer.AddLigne(Row(7));
    EXPECT_EQ(7, FetchFirst(buffer, remaining)) << "the first Fetch after emptying deletes nothing";

    // VideBuffer with a row current: the receiver's flag is its own, and the
    // first Fetch after it delivers the next row appended.
    buffer.SetLastLigne();
    buffer.SetCurrentRecept(1);
    buffer.VideBuffer();
    EXPECT_EQ(0, buffer.IsLastLigne());
    EXPECT_EQ(1, buffer.IsCurrentReceptLine());
    buffer.AddLigne(Row(8));
    EXPECT_EQ(8, FetchFirst(buffer, remaining));
}

TEST(SelectRow, CopiesOwnTheirValues) {
    CLigneSelect original;
    original.AddParam(LongValue(5));
    original.AddParam(TextValue(L"texte"));
    {
        CLigneSelect copy(original);
        ASSERT_EQ(2, copy.GetNbColonnes());
        const wchar_t* mine = copy.GetParam(2)->pszValeur;  // packed fields: read by value
        const wchar_t* theirs = original.GetParam(2)->pszValeur;
        EXPECT_NE(theirs, mine);
        CLigneSelect assigned;
        for (int i = 1; i <= 3; ++i) assigned.AddParam(LongValue(i));
        assigned = copy;  // the three earlier values are released
        ASSERT_EQ(2, assigned.GetNbColonnes());
        EXPECT_EQ(5, static_cast<int>(assigned.GetParam(1)->valNum.lVal));
        EXPECT_STREQ(L"texte", assigned.GetParam(2)->pszValeur);
    }
    // The copies are gone; the original is intact.
    ASSERT_EQ(2, original.GetNbColonnes());
    EXPECT_STREQ(L"texte", original.GetParam(2)->pszValeur);

    // A row made of copies in one block, then values appended after them,
    // reads in column order; its copy is a row like any other.
    CParam null;
    null.cType = SQL_C_WCHAR;
    null.bNull = 1;
    CParam* cells[] = {original.GetParam(1), original.GetParam(2), &null};
    CLigneSelect block;
    ASSERT_TRUE(block.AddCopies(cells, 3));
    ASSERT_TRUE(block.AddCopies(cells + 1, 1));
    block.AddParam(LongValue(9));
    CLigneSelect copy(block);
    for (CLigneSelect* row : {&block, &copy}) {
        ASSERT_EQ(5, row->GetNbColonnes());
        EXPECT_EQ(5, static_cast<int>(row->GetParam(1)->valNum.lVal));
        EXPECT_STREQ(L"texte", row->GetParam(2)->pszValeur);
        const wchar_t* mine = row->GetParam(2)->pszValeur;  // packed fields: read by value
        const wchar_t* theirs = original.GetParam(2)->pszValeur;
        const wchar_t* none = row->GetParam(3)->pszValeur;
        EXPECT_NE(theirs, mine);
        EXPECT_EQ(nullptr, none) << "a NULL value has no text";
        EXPECT_STREQ(L"texte", row->GetParam(4)->pszValeur);
        EXPECT_EQ(9, static_cast<int>(row->GetParam(5)->valNum.lVal));
    }
}

// The connection's thread appends while the application's thread walks the
// rows: every row arrives once, in order.
TEST(SelectBuffer, RowsAppendedFromAnotherThreadArriveInOrder) {
    const int kRows = 2000;
    CSelectBuffer buffer;
    std::thread receiver([&] {
        buffer.SetCurrentRecept(1);
        for (int i = 1; i <= kRows; i++) buffer.AddLigne(Row(i));
        buffer.SetLastLigne();
        buffer.SetCurrentRecept(0);
    });
    int expected = 1, remaining = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (expected <= kRows && std::chrono::steady_clock::now() < deadline) {
        if (buffer.GetNbLigne() == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        const int got = FetchFirst(buffer, remaining);
        EXPECT_EQ(expected, got);
        if (got != expected) break;  // the thread is still joined below
        expected++;
    }
    receiver.join();
    EXPECT_EQ(kRows + 1, expected);
    EXPECT_EQ(KVN_NO_DATA, buffer.Fetch(remaining));
    EXPECT_EQ(1, buffer.IsLastLigne());
}

}  // namespace
