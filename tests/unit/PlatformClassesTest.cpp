// The framework classes that cross the library's interface: DStr (formatting,
// growth, concatenation, assignment from itself), CString, CPtrArray (which
// refuses indexes outside its bounds) and CPtrList (which keeps its order
// through additions and removals at either end and in the middle).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <korvane/platform/CPtrArray.h>
#include <korvane/platform/CString.h>
#include <korvane/platform/DStr.h>

namespace {

std::wstring Text(const DStr& s) { return std::wstring(s.GetString()); }

int g_values[100];
void* P(int i) { return &g_values[i]; }
using Ptrs = std::vector<void*>;

Ptrs Contents(const CPtrArray& a) {
    Ptrs v;
    for (int i = 0; i < a.GetSize(); ++i) v.push_back(a.GetAt(i));
    return v;
}

Ptrs Contents(const CPtrList& list) {
    Ptrs v;
    for (POSITION pos = list.GetHeadPosition(); pos;) v.push_back(list.GetNext(pos));
    return v;
}

// ---- DStr and CString ------------------------------------------------------------------

TEST(PlatformDStr, PrintfRendersWideTextIntegersAndDoublesAndGrowsBeyondItsFirstBuffer) {
    DStr empty(nullptr);
    EXPECT_TRUE(empty.IsEmpty());
    ASSERT_NE(empty.GetString(), nullptr);
    EXPECT_TRUE(empty == L"" && empty == nullptr);

    DStr s;
    EXPECT_EQ(s.Printf(L"%ls=%d;%lld;%.2lf", L"cnx", -42, -9000000000LL, 3.14159), 24);
    EXPECT_EQ(Text(s), L"cnx=-42;-9000000000;3.14");
    s.Printf(L"%d", 7);  // a new Printf replaces the text
    EXPECT_EQ(Text(s), L"7");
    EXPECT_EQ(s.Length(), 1);
    const std::wstring longText(1000, L'x');
    EXPECT_EQ(s.Printf(L"[%ls]", longText.c_str()), 1002);
    EXPECT_EQ(Text(s), L"[" + longText + L"]");
}

TEST(PlatformDStr, ConcatenationAppendsTextStringsAndCharactersEvenFromItself) {
    DStr s(L"Kvn");
    s += L"Client";
    s += L'!';
    s += DStr(L" ok");
    EXPECT_EQ(Text(s), L"KvnClient! ok");
    EXPECT_EQ(s.Length(), 13);
    EXPECT_EQ(Text(DStr(L"a") + L"b"), L"ab");
    EXPECT_EQ(Text(DStr(L"a") + DStr(L"c")), L"ac");
    DStr many;
    for (int i = 0; i < 300; ++i) many += L'z';
    EXPECT_EQ(Text(many), std::wstring(300, L'z'));

    DStr self(L"abc");
    DStr& same = self;
    self = same;
    EXPECT_EQ(Text(self), L"abc");
    self += same;
    EXPECT_EQ(Text(self), L"abcabc");
    self += self.GetString();
    EXPECT_EQ(Text(self), L"abcabcabcabc");
    self = self.GetString() + 9;  // a part of its own text
    EXPECT_EQ(Text(self), L"abc");
    DStr copy(self);
    DStr moved(static_cast<DStr&&>(copy));
    EXPECT_EQ(Text(moved), L"abc");
    self.Empty();
    EXPECT_TRUE(self.IsEmpty() && self == L"");
}

TEST(PlatformCString, ACStringCopiesAppendsAndComparesItsText) {
    CString s(L"select");
    EXPECT_EQ(s.GetLength(), 6);
    s += L" 1";
    EXPECT_TRUE(s == L"select 1");
    CString copy(s);
    s = L"other";
    EXPECT_TRUE(copy == L"select 1");
    EXPECT_TRUE(s != L"select 1");
    const CString& same = s;
    s = same;
    EXPECT_TRUE(s == L"other");
    s = s.GetString() + 2;
    EXPECT_TRUE(s == L"her");
    s.Empty();
    EXPECT_TRUE(s.IsEmpty());
    EXPECT_NE(s.GetString(), nullptr);
    s += nullptr;
    EXPECT_TRUE(s == L"");
}

// ---- CPtrArray and CPtrList ---------------------------------------------------------------

TEST(PlatformPtrArray, AddInsertAndRemoveKeepTheOrderAndIndexesOutsideAreRefused) {
    CPtrArray a;
    EXPECT_TRUE(a.IsEmpty());
    for (int i = 0; i < 20; ++i) EXPECT_EQ(a.Add(P(i)), i);
    EXPECT_TRUE(a.InsertAt(0, P(50)));
    EXPECT_TRUE(a.InsertAt(21, P(51)));  // at the end: appends
    EXPECT_TRUE(a.InsertAt(10, P(52)));
    EXPECT_EQ(a.GetSize(), 23);
    EXPECT_EQ(a[0], P(50));
    EXPECT_EQ(a[10], P(52));
    EXPECT_EQ(a[11], P(9));
    EXPECT_EQ(a[22], P(51));

    a.RemoveAll();
    for (int i = 0; i < 6; ++i) a.Add(P(i));
    a.RemoveAt(1, 2);
    EXPECT_EQ(Contents(a), (Ptrs{P(0), P(3), P(4), P(5)}));
    a.RemoveAt(2, 100);  // stops at the end
    EXPECT_EQ(Contents(a), (Ptrs{P(0), P(3)}));

    EXPECT_EQ(a.GetAt(-1), nullptr);
    EXPECT_EQ(a.GetAt(2), nullptr);
    EXPECT_FALSE(a.InsertAt(-1, P(9)));
    EXPECT_FALSE(a.InsertAt(3, P(9)));
    a.SetAt(2, P(9));
    a.SetAt(-1, P(9));
    a.RemoveAt(2);
    a.RemoveAt(-1);
    a.RemoveAt(0, 0);
    EXPECT_EQ(Contents(a), (Ptrs{P(0), P(3)}));
    a.SetAt(1, P(7));
    EXPECT_EQ(a[1], P(7));
}

TEST(PlatformPtrList, AdditionsAtEitherEndAndRemovalsAnywhereKeepTheOrder) {
    CPtrList list;
    EXPECT_EQ(list.GetHead(), nullptr);
    EXPECT_EQ(list.GetTail(), nullptr);
    EXPECT_EQ(list.RemoveHead(), nullptr);
    list.AddTail(P(1));
    POSITION two = list.AddTail(P(2));
    list.AddHead(P(0));
    list.AddTail(P(3));
    list.AddTail(P(4));
    EXPECT_EQ(Contents(list), (Ptrs{P(0), P(1), P(2), P(3), P(4)}));
    EXPECT_EQ(list.GetHead(), P(0));
    EXPECT_EQ(list.GetTail(), P(4));
    EXPECT_EQ(list.RemoveHead(), P(0));

    list.RemoveAt(two);
    EXPECT_EQ(Contents(list), (Ptrs{P(1), P(3), P(4)}));
    list.RemoveAt(list.GetHeadPosition());
    POSITION pos = list.GetHeadPosition();
    EXPECT_EQ(list.GetNext(pos), P(3));
    list.RemoveAt(pos);  // the tail
    EXPECT_EQ(list.GetTail(), P(3));
    EXPECT_EQ(list.GetCount(), 1);
    list.RemoveAll();
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(list.GetHeadPosition(), nullptr);
}

}  // namespace
