// Events and the waits on them, as a thread of the library sees them: pending
// sets, auto-reset consumption, manual reset, the order of a wait on several
// handles, time-outs, and handles that are not (or no longer) valid.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/TestUtil.h"
#include "platform/Kernel.h"
#include "platform/Threads.h"

namespace {

using kvntest::Clock;
using kvntest::MsSince;
using kvntest::Handle;

// Waits (briefly, a bounded number of times) until counter reaches value.
bool ReachesWithin(const std::atomic<int>& counter, int value, int ms) {
    for (int i = 0; i < ms && counter.load() < value; ++i) KvnSleep(1);
    return counter.load() >= value;
}

// ---- One event ---------------------------------------------------------------

TEST(PlatformEvents, ASetThatNobodyWaitsForStaysPendingUntilOneWaitTakesIt) {
    Handle e(KvnCreateEvent(FALSE, FALSE));
    ASSERT_TRUE(KvnIsHandleOpen(e));
    EXPECT_EQ(KvnWaitForSingleObject(e, 0), WAIT_TIMEOUT);

    EXPECT_TRUE(KvnSetEvent(e));
    EXPECT_TRUE(KvnSetEvent(e));  // sets do not add up
    EXPECT_EQ(KvnWaitForSingleObject(e, 0), WAIT_OBJECT_0);
    EXPECT_EQ(KvnWaitForSingleObject(e, 0), WAIT_TIMEOUT);

    Handle initiallySet(KvnCreateEvent(FALSE, TRUE));
    EXPECT_EQ(KvnWaitForSingleObject(initiallySet, 0), WAIT_OBJECT_0);
    EXPECT_EQ(KvnWaitForSingleObject(initiallySet, 0), WAIT_TIMEOUT);

    EXPECT_TRUE(KvnSetEvent(e));
    EXPECT_TRUE(KvnResetEvent(e));
    EXPECT_EQ(KvnWaitForSingleObject(e, 0), WAIT_TIMEOUT);
}

TEST(PlatformEvents, OneSetOfAnAutoResetEventReleasesExactlyOneOfTwoWaiters) {
    Handle e(KvnCreateEvent(FALSE, FALSE));
    std::atomic<int> released{0};
    auto waiter = [&] {
        if (KvnWaitForSingleObject(e, 5000) == WAIT_OBJECT_0) ++released;
    };
    std::thread first(waiter);
    std::thread second(waiter);

    KvnSetEvent(e);
    EXPECT_TRUE(ReachesWithin(released, 1, 2000));
    KvnSleep(30);  // time for a wrongly released second waiter to show
    EXPECT_EQ(released.load(), 1);

    KvnSetEvent(e);
    first.join();
    second.join();
    EXPECT_EQ(released.load(), 2);
    EXPECT_EQ(KvnWaitForSingleObject(e, 0), WAIT_TIMEOUT);
}

TEST(PlatformEvents, AManualResetEventReleasesEveryWaiterAndStaysSetUntilReset) {
    Handle e(KvnCreateEvent(TRUE, FALSE));
    std::atomic<int> released{0};
    auto waiter = [&] {
        if (KvnWaitForSingleObject(e, 5000) == WAIT_OBJECT_0) ++released;
    };
    std::thread first(waiter);
    std::thread second(waiter);
    KvnSetEvent(e);
    first.join();
    second.join();
    EXPECT_EQ(released.load(), 2);

    EXPECT_EQ(KvnWaitForSingleObject(e, 0), WAIT_OBJECT_0);
    EXPECT_EQ(KvnWaitForSingleObject(e, 0), WAIT_OBJECT_0);
    KvnResetEvent(e);
    EXPECT_EQ(KvnWaitForSingleObject(e, 0), WAIT_TIMEOUT);
}

// ---- Several handles -----------------------------------------------------------

TEST(PlatformWaitAny, TheFirstSignalledHandleInArrayOrderWinsAndOnlyItIsConsumed) {
    Handle a(KvnCreateEvent(FALSE, FALSE));
    Handle b(KvnCreateEvent(FALSE, FALSE));
    Handle c(KvnCreateEvent(TRUE, FALSE));
    const HANDLE all[] = {a, b, c};

    KvnSetEvent(c);
    KvnSetEvent(b);
    EXPECT_EQ(KvnWaitForMultipleObjects(3, all, 0), WAIT_OBJECT_0 + 1);
    // b was taken; c, passed over, is still set (and manual, so it stays so).
    EXPECT_EQ(KvnWaitForMultipleObjects(3, all, 0), WAIT_OBJECT_0 + 2);
    EXPECT_EQ(KvnWaitForMultipleObjects(3, all, 0), WAIT_OBJECT_0 + 2);

    KvnSetEvent(a);
    KvnSetEvent(b);
    EXPECT_EQ(KvnWaitForMultipleObjects(3, all, 0), WAIT_OBJECT_0);
    KvnResetEvent(c);
    EXPECT_EQ(KvnWaitForMultipleObjects(3, all, 0), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(KvnWaitForMultipleObjects(3, all, 0), WAIT_TIMEOUT);
}

TEST(PlatformWaitAny, ABlockedWaiterWakesForWhicheverHandleIsSetAndReportsThatOne) {
    Handle a(KvnCreateEvent(FALSE, FALSE));
    Handle b(KvnCreateEvent(FALSE, FALSE));
    const HANDLE both[] = {a, b};
    std::thread setter([&] {
        KvnSleep(20);
        KvnSetEvent(b);
    });
    const auto start = Clock::now();
    EXPECT_EQ(KvnWaitForMultipleObjects(2, both, 5000), WAIT_OBJECT_0 + 1);
    EXPECT_LT(MsSince(start), 2000);
    setter.join();
    EXPECT_EQ(KvnWaitForSingleObject(b, 0), WAIT_TIMEOUT);  // consumed by the wait
}

// ---- Time-outs -------------------------------------------------------------------

TEST(PlatformWaits, ATimedWaitEndsAfterItsTimeOutAndAZeroWaitAtOnce) {
    Handle a(KvnCreateEvent(FALSE, FALSE));
    Handle b(KvnCreateEvent(TRUE, FALSE));
    const HANDLE both[] = {a, b};

    auto start = Clock::now();
    EXPECT_EQ(KvnWaitForSingleObject(a, 30), WAIT_TIMEOUT);
    long long elapsed = MsSince(start);
    // Windows may end a wait up to one clock tick (about 16 ms) early.
    EXPECT_GE(elapsed, 14);
    EXPECT_LT(elapsed, 1000);

    start = Clock::now();
    EXPECT_EQ(KvnWaitForMultipleObjects(2, both, 30), WAIT_TIMEOUT);
    elapsed = MsSince(start);
    EXPECT_GE(elapsed, 14);
    EXPECT_LT(elapsed, 1000);

    start = Clock::now();
    for (int i = 0; i < 100; ++i) EXPECT_EQ(KvnWaitForMultipleObjects(2, both, 0), WAIT_TIMEOUT);
    EXPECT_LT(MsSince(start), 500);
}

// ---- Handles that are not valid -----------------------------------------------------

TEST(PlatformWaits, AClosedOrNeverValidHandleFailsWithInvalidHandle) {
    KvnSetLastError(0);
    EXPECT_EQ(KvnWaitForSingleObject(nullptr, 0), WAIT_FAILED);
    EXPECT_EQ(KvnGetLastError(), ERROR_INVALID_HANDLE);

    // Created first: a handle value freed by the close may be given out again.
    Handle set(KvnCreateEvent(TRUE, TRUE));
    HANDLE closed = KvnCreateEvent(TRUE, TRUE);
    ASSERT_TRUE(KvnCloseHandle(closed));
    KvnSetLastError(0);
    EXPECT_EQ(KvnWaitForSingleObject(closed, 0), WAIT_FAILED);
    EXPECT_EQ(KvnGetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(KvnSetEvent(closed));
    EXPECT_FALSE(KvnCloseHandle(closed));

    // One bad handle fails the whole wait, even behind a signalled one.
    const HANDLE mixed[] = {set, closed};
    KvnSetLastError(0);
    EXPECT_EQ(KvnWaitForMultipleObjects(2, mixed, 0), WAIT_FAILED);
    EXPECT_EQ(KvnGetLastError(), ERROR_INVALID_HANDLE);

    EXPECT_EQ(KvnWaitForMultipleObjects(0, mixed, 0), WAIT_FAILED);
}

TEST(PlatformWaits, ClosingAHandleWhileAnotherThreadWaitsOnItIsSafe) {
    HANDLE e = KvnCreateEvent(FALSE, FALSE);
    std::atomic<DWORD> result{0};
    std::thread waiter([&] { result = KvnWaitForSingleObject(e, 100); });
    KvnSleep(20);
    EXPECT_TRUE(KvnCloseHandle(e));
    waiter.join();
    // The wait goes on to its time-out (or, if it started after the close, fails).
    EXPECT_TRUE(result.load() == WAIT_TIMEOUT || result.load() == WAIT_FAILED);
}

}  // namespace
