// The smaller services of the platform layer: GUID and Automation date texts
// (and which inputs are refused), the computer name (and its forced failure),
// files named by wide text outside ASCII, registered messages and the
// notification window.
#include <gtest/gtest.h>

#include <cstdio>
#include <cwchar>
#include <string>

#include <korvane/platform/DStr.h>
#include <korvane/platform/KvnWait.h>
#include <korvane/platform/NotifyWindow.h>

#include "UnitUtil.h"
#include "platform/DateTime.h"
#include "platform/Files.h"
#include "platform/Messages.h"
#include "platform/SystemInfo.h"
#include "platform/Uuid.h"

namespace {

using kvntest::Clock;
using kvntest::MsSince;
using kvnunit::SameGuid;
using kvnunit::SampleGuid;

// ---- GUIDs and dates -------------------------------------------------------------------

TEST(PlatformGuid, AGuidIsWrittenInLowerCaseAndReadBackInEitherCaseOnlyInTheStandardForm) {
    wchar_t text[37];
    const GUID g = SampleGuid();
    ASSERT_TRUE(KvnUuidToString(&g, text));
    EXPECT_STREQ(text, L"12345678-9abc-def0-a0a1-a2a3a4a5a6a7");
    GUID back;
    for (const wchar_t* form : {L"12345678-9abc-def0-a0a1-a2a3a4a5a6a7",
                                L"12345678-9ABC-DEF0-A0A1-A2A3A4A5A6A7"}) {
        KvnUuidCreateNil(&back);
        ASSERT_TRUE(KvnUuidFromString(form, &back));
        EXPECT_TRUE(SameGuid(back, g));
    }

    const wchar_t* refused[] = {
        L"",
        L"12345678-9abc-def0-a0a1-a2a3a4a5a6a",     // one digit short
        L"12345678-9abc-def0-a0a1-a2a3a4a5a6a7a",   // one digit too many
        L"{12345678-9abc-def0-a0a1-a2a3a4a5a6a7}",  // braces
        L"12345678-9abc-def0-a0a1-a2a3a4a5a6ag",    // not a digit
        L"123456789abc-def0-a0a1-a2a3a4a5a6a7-",    // dash misplaced
    };
    for (const wchar_t* text : refused) {
        GUID kept = SampleGuid();
        EXPECT_FALSE(KvnUuidFromString(text, &kept)) << static_cast<int>(std::wcslen(text));
        EXPECT_TRUE(SameGuid(kept, SampleGuid()));
    }
}

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

const double timeOfDay = (4 * 3600 + 5 * 60 + 6) / 86400.0;  // 04:05:06

double ToVariant(const SYSTEMTIME& st) {
    double date = -123456.0;
    EXPECT_TRUE(KvnSystemTimeToVariantTime(&st, &date));
    return date;
}

TEST(PlatformDate, DatesCountDaysFromTheLastDaysOf1899AndImpossibleOnesAreRefused) {
    EXPECT_DOUBLE_EQ(ToVariant(Date(1899, 12, 30)), 0.0);
    EXPECT_DOUBLE_EQ(ToVariant(Date(1900, 1, 1)), 2.0);
    EXPECT_DOUBLE_EQ(ToVariant(Date(2024, 2, 29, 18)), 45351.75);
    EXPECT_DOUBLE_EQ(ToVariant(Date(9999, 12, 31)), 2958465.0);
    // Before the origin the days count back while the time still counts forward.
    EXPECT_DOUBLE_EQ(ToVariant(Date(1899, 12, 29, 6)), -1.25);
    EXPECT_DOUBLE_EQ(ToVariant(Date(100, 1, 1)), -657434.0);
    EXPECT_NEAR(ToVariant(Date(2001, 2, 3, 4, 5, 6)), 36925.0 + timeOfDay, 1e-9);

    const SYSTEMTIME refused[] = {
        Date(2001, 2, 29), Date(1900, 2, 29),    Date(2023, 4, 31),          Date(2023, 13, 1),
        Date(2023, 1, 0),  Date(2023, 1, 1, 24), Date(2023, 1, 1, 0, 0, 60), Date(99, 12, 31),
        Date(10000, 1, 1),
    };
    for (const SYSTEMTIME& st : refused) {
        double date = 0;
        EXPECT_FALSE(KvnSystemTimeToVariantTime(&st, &date))
            << st.wYear << "-" << st.wMonth << "-" << st.wDay << " " << st.wHour << ":" << st.wSecond;
    }
    SYSTEMTIME now = {};
    KvnGetLocalTime(&now);
    EXPECT_GT(ToVariant(now), ToVariant(Date(2020, 1, 1)));
}

TEST(PlatformDate, ADateHasAText) {
    DStr text;
    EXPECT_TRUE(KvnVarBstrFromDate(36526.5, text));
    EXPECT_FALSE(text.IsEmpty());
#if !defined(_WIN32)
    // Windows writes the user's locale; elsewhere the form is fixed: midnight
    // gives the date alone, the origin the time alone.
    const struct {
        double date;
        const wchar_t* text;
    } cases[] = {{36925.0 + timeOfDay, L"2001-02-03 04:05:06"}, {2.0, L"1900-01-01"},
                 {-1.25, L"1899-12-29 06:00:00"},             {0.0, L"00:00:00"}};
    for (const auto& c : cases) {
        ASSERT_TRUE(KvnVarBstrFromDate(c.date, text));
        EXPECT_STREQ(text.GetString(), c.text);
    }
#endif
    EXPECT_FALSE(KvnVarBstrFromDate(3.0e6, text));  // after the year 9999
}

// ---- Computer name, files -----------------------------------------------

TEST(PlatformComputerName, TheNameFitsItsBufferAndAForcedFailureIsReported) {
    wchar_t name[256];
    DWORD size = 256;
    ASSERT_TRUE(KvnGetComputerName(name, &size));
    EXPECT_EQ(std::wstring(name).size(), size);
    DWORD tooSmall = 1;
    EXPECT_FALSE(KvnGetComputerName(name, &tooSmall));
    KvnSetComputerNameFailure(TRUE);
    size = 256;
    EXPECT_FALSE(KvnGetComputerName(name, &size));
    KvnSetComputerNameFailure(FALSE);
}

TEST(PlatformFiles, AFileNamedOutsideAsciiIsWrittenRenamedReadAndRemoved) {
    kvnunit::TempDir dir;
    const std::wstring name = dir.path.wstring() + L"/kvn_\u00e9t\u00e9_\u6f22.log";
    const std::wstring renamed = name + L".bak";
    std::FILE* f = KvnOpenFile(name.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("journal", f);
    std::fclose(f);
    EXPECT_EQ(KvnRenameFile(name.c_str(), renamed.c_str()), 0);
    EXPECT_EQ(KvnOpenFile(name.c_str(), "r"), nullptr);
    f = KvnOpenFile(renamed.c_str(), "r");
    ASSERT_NE(f, nullptr);
    char buffer[16] = {};
    EXPECT_EQ(std::fread(buffer, 1, sizeof buffer - 1, f), 7u);
    std::fclose(f);
    EXPECT_STREQ(buffer, "journal");
    EXPECT_EQ(KvnRemoveFile(renamed.c_str()), 0);
    EXPECT_NE(KvnRemoveFile(renamed.c_str()), 0);
}

// ---- Registered messages and the notification window ---------------------------------------

TEST(PlatformNotify, NamesIgnoreCaseInTheRegisteredRangeAndAWaitEndsAtItsTimeOut) {
    const UINT id = KvnRegisterWindowMessage(L"KVN_MSG_PERTE_COMM");
    EXPECT_GE(id, 0xC000u);
    EXPECT_LE(id, 0xFFFFu);
    EXPECT_NE(KvnRegisterWindowMessage(L"KVN_MSG_COMM_OK"), id);
    EXPECT_EQ(KvnRegisterWindowMessage(L"kvn_msg_perte_comm"), id);

    HWND window = KvnCreateNotifyWindow();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(KvnPostMessage(window, id, 2, -20));
    UINT msg = 0;
    WPARAM wParam = 0;
    LPARAM lParam = 0;
    ASSERT_TRUE(KvnWaitNotifyMessage(window, 1000, &msg, &wParam, &lParam));
    EXPECT_EQ(lParam, -20);
    const auto start = Clock::now();
    EXPECT_FALSE(KvnWaitNotifyMessage(window, 30, &msg, &wParam, &lParam));
    EXPECT_GE(MsSince(start), 14);
    EXPECT_LT(MsSince(start), 1000);
    KvnDestroyNotifyWindow(window);
    EXPECT_FALSE(KvnPostMessage(window, id, 0, 0));  // to a destroyed window
}

// The same source on both systems: the system's own functions on Windows,
// the library's elsewhere.
TEST(PlatformNotify, MessagesAreReadWithTheSystemsFunctionsInRangeLeftOrTaken) {
    const UINT perte = KvnRegisterWindowMessage(L"KVN_MSG_PERTE_COMM");
    const UINT ok = kvn::RegisterWindowMessageW(L"KVN_MSG_COMM_OK");
    EXPECT_EQ(KvnRegisterWindowMessage(L"KVN_MSG_COMM_OK"), ok);
    HWND window = KvnCreateNotifyWindow();
    ASSERT_NE(window, nullptr);
    ASSERT_TRUE(KvnPostMessage(window, perte, 1, 0));
    ASSERT_TRUE(KvnPostMessage(window, ok, 2, 0));

    kvn::MSG m = {};
    ASSERT_TRUE(kvn::PeekMessageW(&m, window, ok, ok, kvn::kPmNoRemove));
    EXPECT_EQ(m.hwnd, window);
    EXPECT_EQ(m.message, ok);
    EXPECT_EQ(m.wParam, 2u);
    ASSERT_TRUE(kvn::PeekMessageW(&m, window, ok, ok, kvn::kPmRemove)) << "left where it was";
    EXPECT_FALSE(kvn::PeekMessageW(&m, window, ok, ok, kvn::kPmRemove)) << "taken";
    ASSERT_EQ(kvn::GetMessageW(&m, window, 0, 0), TRUE);
    EXPECT_EQ(m.message, perte) << "the older one, passed over by the range";
    EXPECT_FALSE(kvn::PeekMessageW(&m, window, 0, 0, kvn::kPmRemove));
    KvnDestroyNotifyWindow(window);
}

}  // namespace
