// The framework's pointer containers: CPtrArray refuses indexes outside its
// bounds, CPtrList keeps its order through additions and removals at either
// end and in the middle.
#include <gtest/gtest.h>

#include <vector>

#include <korvane/platform/CPtrArray.h>

namespace {

int g_values[100];
void* P(int i) { return &g_values[i]; }

std::vector<void*> Contents(const CPtrArray& a) {
    std::vector<void*> v;
    for (int i = 0; i < a.GetSize(); ++i) v.push_back(a.GetAt(i));
    return v;
}

std::vector<void*> Contents(const CPtrList& list) {
    std::vector<void*> v;
    for (POSITION pos = list.GetHeadPosition(); pos;) v.push_back(list.GetNext(pos));
    return v;
}

// ---- CPtrArray -----------------------------------------------------------------------

TEST(PlatformPtrArray, AddAndInsertKeepTheOrderAndGrowAsNeeded) {
    CPtrArray a;
    EXPECT_TRUE(a.IsEmpty());
    for (int i = 0; i < 20; ++i) EXPECT_EQ(a.Add(P(i)), i);
    EXPECT_EQ(a.GetSize(), 20);
    EXPECT_TRUE(a.InsertAt(0, P(50)));
    EXPECT_TRUE(a.InsertAt(21, P(51)));  // at the end: appends
    EXPECT_TRUE(a.InsertAt(10, P(52)));
    EXPECT_EQ(a.GetSize(), 23);
    EXPECT_EQ(a[0], P(50));
    EXPECT_EQ(a[10], P(52));
    EXPECT_EQ(a[11], P(9));
    EXPECT_EQ(a[22], P(51));
}

TEST(PlatformPtrArray, IndexesOutsideTheArrayAreRefused) {
    CPtrArray a;
    a.Add(P(0));
    a.Add(P(1));
    EXPECT_EQ(a.GetAt(-1), nullptr);
    EXPECT_EQ(a.GetAt(2), nullptr);
    EXPECT_FALSE(a.InsertAt(-1, P(9)));
    EXPECT_FALSE(a.InsertAt(3, P(9)));
    a.SetAt(2, P(9));
    a.SetAt(-1, P(9));
    a.RemoveAt(2);
    a.RemoveAt(-1);
    a.RemoveAt(0, 0);
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(1)}));
    a.SetAt(1, P(7));
    EXPECT_EQ(a[1], P(7));
}

TEST(PlatformPtrArray, RemoveAtTakesOutARunAndStopsAtTheEnd) {
    CPtrArray a;
    for (int i = 0; i < 6; ++i) a.Add(P(i));
    a.RemoveAt(1, 2);
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(3), P(4), P(5)}));
    a.RemoveAt(2, 100);
    EXPECT_EQ(Contents(a), (std::vector<void*>{P(0), P(3)}));
    a.RemoveAll();
    EXPECT_EQ(a.GetSize(), 0);
    EXPECT_EQ(a.Add(P(8)), 0);
}

// ---- CPtrList -------------------------------------------------------------------------

TEST(PlatformPtrList, HeadAndTailAdditionsAreWalkedInOrder) {
    CPtrList list;
    EXPECT_EQ(list.GetHead(), nullptr);
    EXPECT_EQ(list.GetTail(), nullptr);
    EXPECT_EQ(list.RemoveHead(), nullptr);
    list.AddTail(P(1));
    list.AddTail(P(2));
    list.AddHead(P(0));
    EXPECT_EQ(list.GetCount(), 3);
    EXPECT_EQ(list.GetHead(), P(0));
    EXPECT_EQ(list.GetTail(), P(2));
    EXPECT_EQ(Contents(list), (std::vector<void*>{P(0), P(1), P(2)}));

    EXPECT_EQ(list.RemoveHead(), P(0));
    EXPECT_EQ(Contents(list), (std::vector<void*>{P(1), P(2)}));
}

TEST(PlatformPtrList, RemoveAtUnlinksOneElementAnywhere) {
    CPtrList list;
    list.AddTail(P(0));
    POSITION middle = list.AddTail(P(1));
    POSITION last = list.AddTail(P(2));
    list.AddTail(P(3));
    list.RemoveAt(middle);
    EXPECT_EQ(Contents(list), (std::vector<void*>{P(0), P(2), P(3)}));
    list.RemoveAt(list.GetHeadPosition());
    EXPECT_EQ(list.GetHead(), P(2));
    POSITION pos = last;
    EXPECT_EQ(list.GetNext(pos), P(2));
    list.RemoveAt(pos);  // the tail
    EXPECT_EQ(list.GetTail(), P(2));
    EXPECT_EQ(list.GetCount(), 1);
    list.RemoveAll();
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(list.GetHeadPosition(), nullptr);
}

}  // namespace
