// Registered messages and the notification window: the identifiers an
// application obtains for the library's message names, and the messages it
// finds in its window, in the order they were posted.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <korvane/platform/NotifyWindow.h>

#include "support/TestUtil.h"
#include "platform/Messages.h"
#include "platform/Threads.h"

namespace {

using kvntest::Clock;
using kvntest::MsSince;

struct Window {
    HWND h = KvnCreateNotifyWindow();
    Window() = default;
    ~Window() {
        if (h) KvnDestroyNotifyWindow(h);
    }
    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;
};

TEST(PlatformNotify, ANameGetsOneIdentifierInTheRegisteredRangeWhateverItsCase) {
    const UINT lost = KvnRegisterWindowMessage(L"KVN_MSG_PERTE_COMM");
    const UINT ok = KvnRegisterWindowMessage(L"KVN_MSG_COMM_OK");
    EXPECT_GE(lost, 0xC000u);
    EXPECT_LE(lost, 0xFFFFu);
    EXPECT_GE(ok, 0xC000u);
    EXPECT_NE(lost, ok);
    EXPECT_EQ(KvnRegisterWindowMessage(L"KVN_MSG_PERTE_COMM"), lost);
    EXPECT_EQ(KvnRegisterWindowMessage(L"kvn_msg_perte_comm"), lost);
}

TEST(PlatformNotify, PostedMessagesAreTakenOldestFirstWithTheirParameters) {
    Window window;
    ASSERT_NE(window.h, nullptr);
    const UINT id = KvnRegisterWindowMessage(L"KVN_MSG_WARNING_FERMETURE");
    EXPECT_TRUE(KvnPostMessage(window.h, id, 1, 10));
    EXPECT_TRUE(KvnPostMessage(window.h, id, 2, -20));
    EXPECT_TRUE(KvnPostMessage(window.h, id, 3, 30));

    for (WPARAM expected = 1; expected <= 3; ++expected) {
        UINT msg = 0;
        WPARAM wParam = 0;
        LPARAM lParam = 0;
        ASSERT_TRUE(KvnWaitNotifyMessage(window.h, 1000, &msg, &wParam, &lParam));
        EXPECT_EQ(msg, id);
        EXPECT_EQ(wParam, expected);
        EXPECT_EQ(lParam, expected == 2 ? -20 : static_cast<LPARAM>(expected * 10));
    }
}

TEST(PlatformNotify, AWaitWithNothingPostedEndsAtItsTimeOut) {
    Window window;
    UINT msg = 0;
    WPARAM wParam = 0;
    LPARAM lParam = 0;
    const auto start = Clock::now();
    EXPECT_FALSE(KvnWaitNotifyMessage(window.h, 30, &msg, &wParam, &lParam));
    EXPECT_GE(MsSince(start), 14);
    EXPECT_LT(MsSince(start), 1000);
}

TEST(PlatformNotify, AMessagePostedFromAnotherThreadWakesTheWaitingOne) {
    Window window;
    const UINT id = KvnRegisterWindowMessage(L"KVN_MSG_FERMETURE");
    const HWND h = window.h;
    std::thread poster([h, id] {
        KvnSleep(20);
        KvnPostMessage(h, id, 7, 0);
    });
    UINT msg = 0;
    WPARAM wParam = 0;
    LPARAM lParam = 0;
    const auto start = Clock::now();
    EXPECT_TRUE(KvnWaitNotifyMessage(window.h, 5000, &msg, &wParam, &lParam));
    EXPECT_LT(MsSince(start), 2000);
    EXPECT_EQ(msg, id);
    EXPECT_EQ(wParam, 7u);
    poster.join();
}

TEST(PlatformNotify, PostingToADestroyedWindowFails) {
    HWND h = KvnCreateNotifyWindow();
    ASSERT_NE(h, nullptr);
    KvnDestroyNotifyWindow(h);
    EXPECT_FALSE(KvnPostMessage(h, KvnRegisterWindowMessage(L"KVN_MSG_COMM_OK"), 0, 0));
}

}  // namespace
