// The string classes that cross the library's interface: DStr (formatting,
// growth, concatenation, assignment from itself) and CString.
#include <gtest/gtest.h>

#include <string>

#include <korvane/platform/CString.h>
#include <korvane/platform/DStr.h>

namespace {

std::wstring Text(const DStr& s) { return std::wstring(s.GetString()); }

// ---- DStr ---------------------------------------------------------------------------

TEST(PlatformDStr, AnEmptyStringStillGivesAValidText) {
    DStr empty;
    EXPECT_TRUE(empty.IsEmpty());
    EXPECT_EQ(empty.Length(), 0);
    ASSERT_NE(empty.GetString(), nullptr);
    EXPECT_TRUE(empty == L"");
    EXPECT_TRUE(empty == nullptr);
    DStr fromNull(nullptr);
    EXPECT_TRUE(fromNull.IsEmpty());
}

TEST(PlatformDStr, PrintfRendersWideTextIntegersAndDoubles) {
    DStr s;
    EXPECT_EQ(s.Printf(L"%ls=%d;%lld;%.2lf", L"cnx", -42, -9000000000LL, 3.14159), 24);
    EXPECT_EQ(Text(s), L"cnx=-42;-9000000000;3.14");
    // A new Printf replaces the text.
    s.Printf(L"%d", 7);
    EXPECT_EQ(Text(s), L"7");
    EXPECT_EQ(s.Length(), 1);
}

TEST(PlatformDStr, PrintfGrowsBeyondItsFirstBuffer) {
    const std::wstring longText(1000, L'x');
    DStr s;
    EXPECT_EQ(s.Printf(L"[%ls]", longText.c_str()), 1002);
    EXPECT_EQ(Text(s), L"[" + longText + L"]");
}

TEST(PlatformDStr, ConcatenationAppendsTextStringsAndCharacters) {
    DStr s(L"Kvn");
    s += L"Client";
    s += L'!';
    DStr tail(L" ok");
    s += tail;
    EXPECT_EQ(Text(s), L"KvnClient! ok");
    EXPECT_EQ(s.Length(), 13);
    EXPECT_EQ(Text(DStr(L"a") + L"b"), L"ab");
    EXPECT_EQ(Text(DStr(L"a") + DStr(L"c")), L"ac");

    // Growth over many appends keeps every character.
    DStr many;
    for (int i = 0; i < 300; ++i) many += L'z';
    EXPECT_EQ(Text(many), std::wstring(300, L'z'));
}

TEST(PlatformDStr, AStringAssignedOrAppendedToItselfKeepsItsText) {
    DStr s(L"abc");
    DStr& same = s;
    s = same;
    EXPECT_EQ(Text(s), L"abc");
    s += same;
    EXPECT_EQ(Text(s), L"abcabc");
    s += s.GetString();
    EXPECT_EQ(Text(s), L"abcabcabcabc");
    s = s.GetString() + 9;  // a part of its own text
    EXPECT_EQ(Text(s), L"abc");

    DStr copy(s);
    DStr moved(static_cast<DStr&&>(copy));
    EXPECT_EQ(Text(moved), L"abc");
    s.Empty();
    EXPECT_TRUE(s.IsEmpty());
    EXPECT_TRUE(s == L"");
}

// ---- CString ---------------------------------------------------------------------------

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

}  // namespace
