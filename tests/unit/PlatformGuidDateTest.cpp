// Text form of GUIDs and Automation dates: what column values of those types
// become, and which inputs are refused.
#include <gtest/gtest.h>

#include <cstring>
#include <cwchar>

#include <korvane/platform/DStr.h>

#include "platform/DateTime.h"
#include "platform/Uuid.h"

namespace {

// ---- GUIDs ---------------------------------------------------------------------------

GUID SampleGuid() {
    GUID g;
    g.Data1 = 0x0123ABCDu;
    g.Data2 = 0x4567;
    g.Data3 = 0x89EF;
    const unsigned char data4[8] = {0xFE, 0xDC, 0x01, 0x23, 0x45, 0x67, 0x89, 0xAB};
    std::memcpy(g.Data4, data4, sizeof data4);
    return g;
}

bool SameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(PlatformGuid, AGuidIsWrittenInLowerCaseAndReadBackInEitherCase) {
    const GUID g = SampleGuid();
    wchar_t text[37];
    ASSERT_TRUE(KvnUuidToString(&g, text));
    EXPECT_STREQ(text, L"0123abcd-4567-89ef-fedc-0123456789ab");

    GUID back;
    KvnUuidCreateNil(&back);
    ASSERT_TRUE(KvnUuidFromString(text, &back));
    EXPECT_TRUE(SameGuid(back, g));
    KvnUuidCreateNil(&back);
    ASSERT_TRUE(KvnUuidFromString(L"0123ABCD-4567-89EF-FEDC-0123456789AB", &back));
    EXPECT_TRUE(SameGuid(back, g));
}

TEST(PlatformGuid, TextThatIsNotTheStandardFormIsRefusedAndLeavesTheGuidAlone) {
    const wchar_t* refused[] = {
        L"",
        L"0123abcd-4567-89ef-fedc-0123456789a",     // one digit short
        L"0123abcd-4567-89ef-fedc-0123456789abc",   // one digit too many
        L"{0123abcd-4567-89ef-fedc-0123456789ab}",  // braces
        L"0123abcd-4567-89ef-fedc+0123456789ab",    // not a dash
        L"0123abcd-4567-89ef-fedc-0123456789ag",    // not a digit
        L"0123abcd4567-89ef-fedc-0123456789ab-",    // dash misplaced
    };
    for (const wchar_t* text : refused) {
        GUID g = SampleGuid();
        EXPECT_FALSE(KvnUuidFromString(text, &g)) << static_cast<int>(std::wcslen(text));
        EXPECT_TRUE(SameGuid(g, SampleGuid()));
    }
}

TEST(PlatformGuid, TheNilGuidIsAllZeros) {
    GUID g = SampleGuid();
    KvnUuidCreateNil(&g);
    wchar_t text[37];
    ASSERT_TRUE(KvnUuidToString(&g, text));
    EXPECT_STREQ(text, L"00000000-0000-0000-0000-000000000000");
}

// ---- Dates -----------------------------------------------------------------------------

SYSTEMTIME Date(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    SYSTEMTIME st = {};
    st.wYear = static_cast<WORD>(y);
    st.wMonth = static_cast<WORD>(mo);
    st.wDay = static_cast<WORD>(d);
    st.wHour = static_cast<WORD>(h);
    st.wMinute = static_cast<WORD>(mi);
    st.wSecond = static_cast<WORD>(s);
    return st;
}

double ToVariant(const SYSTEMTIME& st) {
    double date = -123456.0;
    EXPECT_TRUE(KvnSystemTimeToVariantTime(&st, &date));
    return date;
}

TEST(PlatformDate, DatesCountDaysFromTheLastDaysOf1899WithTheTimeAsFraction) {
    EXPECT_DOUBLE_EQ(ToVariant(Date(1899, 12, 30)), 0.0);
    EXPECT_DOUBLE_EQ(ToVariant(Date(1900, 1, 1)), 2.0);
    EXPECT_DOUBLE_EQ(ToVariant(Date(2000, 1, 1, 12)), 36526.5);
    EXPECT_DOUBLE_EQ(ToVariant(Date(2024, 2, 29, 18)), 45351.75);
    EXPECT_DOUBLE_EQ(ToVariant(Date(9999, 12, 31)), 2958465.0);
    // Before the origin the days count back while the time still counts forward.
    EXPECT_DOUBLE_EQ(ToVariant(Date(1899, 12, 29, 6)), -1.25);
    EXPECT_DOUBLE_EQ(ToVariant(Date(100, 1, 1)), -657434.0);
    EXPECT_NEAR(ToVariant(Date(2001, 2, 3, 4, 5, 6)), 36925.0 + (4 * 3600 + 5 * 60 + 6) / 86400.0,
                1e-9);
}

TEST(PlatformDate, ImpossibleDatesAreRefused) {
    const SYSTEMTIME refused[] = {
        Date(2001, 2, 29), Date(1900, 2, 29),  Date(2023, 4, 31), Date(2023, 0, 1),
        Date(2023, 13, 1), Date(2023, 1, 0),   Date(2023, 1, 32), Date(2023, 1, 1, 24),
        Date(2023, 1, 1, 0, 60), Date(2023, 1, 1, 0, 0, 60), Date(99, 12, 31), Date(10000, 1, 1),
    };
    for (const SYSTEMTIME& st : refused) {
        double date = 0;
        EXPECT_FALSE(KvnSystemTimeToVariantTime(&st, &date))
            << st.wYear << "-" << st.wMonth << "-" << st.wDay << " " << st.wHour << ":" << st.wMinute
            << ":" << st.wSecond;
    }
    double date = 0;
    const SYSTEMTIME leap = Date(2000, 2, 29);
    EXPECT_TRUE(KvnSystemTimeToVariantTime(&leap, &date));
}

TEST(PlatformDate, ADateHasAText) {
    DStr text;
    EXPECT_TRUE(KvnVarBstrFromDate(36526.5, text));
    EXPECT_FALSE(text.IsEmpty());
#if !defined(_WIN32)
    // Windows writes the user's locale; elsewhere the form is fixed.
    EXPECT_TRUE(text == L"2000-01-01 12:00:00") << text.Length();
    ASSERT_TRUE(KvnVarBstrFromDate(ToVariant(Date(2001, 2, 3, 4, 5, 6)), text));
    EXPECT_TRUE(text == L"2001-02-03 04:05:06");
    ASSERT_TRUE(KvnVarBstrFromDate(2.0, text));  // midnight: the date alone
    EXPECT_TRUE(text == L"1900-01-01");
    ASSERT_TRUE(KvnVarBstrFromDate(0.75, text));  // the origin: the time alone
    EXPECT_TRUE(text == L"18:00:00");
    ASSERT_TRUE(KvnVarBstrFromDate(-1.25, text));
    EXPECT_TRUE(text == L"1899-12-29 06:00:00");
    ASSERT_TRUE(KvnVarBstrFromDate(0.0, text));
    EXPECT_TRUE(text == L"00:00:00");
#endif
    EXPECT_FALSE(KvnVarBstrFromDate(3.0e6, text));  // after the year 9999
}

TEST(PlatformDate, TheLocalTimeIsAPossibleDate) {
    SYSTEMTIME now = {};
    KvnGetLocalTime(&now);
    double date = 0;
    EXPECT_TRUE(KvnSystemTimeToVariantTime(&now, &date));
    EXPECT_GT(date, ToVariant(Date(2020, 1, 1)));
    EXPECT_LT(now.wMilliseconds, 1000);
}

}  // namespace
