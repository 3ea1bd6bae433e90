// The framework classes that cross the library's interface, at their edges:
// DStr growing beyond its first buffer and taking its own text, CString
// assigned a part of itself, CPtrArray refusing indexes outside its bounds
// and CPtrList keeping its order through removals at either end.
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

TEST(PlatformDStr, PrintfGrowsBeyondItsFirstBufferAndTextsTakenFromItselfSurvive) {
    DStr empty(nullptr);
    ASSERT_NE(empty.GetString(), nullptr);
    EXPECT_TRUE(empty == L"" && empty == nullptr);

    DStr s;
    EXPECT_EQ(s.Printf(L"%ls=%d;%lld;%.2lf", L"cnx", -42, -9000000000LL, 3.14159), 24);
    EXPECT_EQ(Text(s), L"cnx=-42;-9000000000;3.14");
    const std::wstring longText(1000, L'x');
    EXPECT_EQ(s.Printf(L"[%ls]", longText.c_str()), 1002);
    EXPECT_EQ(Text(s), L"[" + longText + L"]");

    DStr self(L"abc");
    DStr& same = self;
    self = same;
    self += same;
    EXPECT_EQ(Text(self), L"abcabc");
    self += self.GetString();
    EXPECT_EQ(Text(self), L"abcabcabcabc");
    self = self.GetString() + 9;  // a part of its own text
    EXPECT_EQ(Text(self), L"abc");
    DStr moved(static_cast<DStr&&>(self));
    EXPECT_EQ(Text(moved), L"abc");
}

TEST(PlatformCString, ACStringAssignedItselfOrAPartOfItselfKeepsItsText) {
    CString s(L"select");
    CString copy(s);
    s += L" 1";
    EXPECT_TRUE(copy == L"select");
    const CString& same = s;
    s = same;
    EXPECT_TRUE(s == L"select 1");
    s = s.GetString() + 2;
    EXPECT_TRUE(s == L"lect 1");
    s.Empty();
    EXPECT_NE(s.GetString(), nullptr);
    s += nullptr;
    EXPECT_TRUE(s == L"");
}

TEST(PlatformPtrArray, InsertAndRemoveKeepTheOrderAndIndexesOutsideAreRefused) {
    CPtrArray a;
    for (int i = 0; i < 6; ++i) EXPECT_EQ(a.Add(P(i)), i);
    EXPECT_TRUE(a.InsertAt(0, P(50)));
    EXPECT_TRUE(a.InsertAt(7, P(51)));  // at the end: appends
    EXPECT_TRUE(a.InsertAt(3, P(52)));
    EXPECT_EQ(Contents(a), (Ptrs{P(50), P(0), P(1), P(52), P(2), P(3), P(4), P(5), P(51)}));
    a.RemoveAt(1, 2);
    a.RemoveAt(4, 100);  // stops at the end
    EXPECT_EQ(Contents(a), (Ptrs{P(50), P(52), P(2), P(3)}));

    EXPECT_EQ(a.GetAt(-1), nullptr);
    EXPECT_EQ(a.GetAt(4), nullptr);
    EXPECT_FALSE(a.InsertAt(-1, P(9)));
    EXPECT_FALSE(a.InsertAt(5, P(9)));
    a.SetAt(4, P(9));
    a.SetAt(-1, P(9));
    a.RemoveAt(4);
    a.RemoveAt(-1);
    a.RemoveAt(0, 0);
    EXPECT_EQ(Contents(a), (Ptrs{P(50), P(52), P(2), P(3)}));
}

TEST(PlatformPtrList, RemovalsAtEitherEndAndInTheMiddleKeepTheOrder) {
    CPtrList list;
    EXPECT_EQ(list.GetHead(), nullptr);
    EXPECT_EQ(list.RemoveHead(), nullptr);
    list.AddTail(P(1));
    POSITION two = list.AddTail(P(2));
    list.AddHead(P(0));
    list.AddTail(P(3));
    list.AddTail(P(4));
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
    EXPECT_EQ(list.GetHeadPosition(), nullptr);
}

}  // namespace
