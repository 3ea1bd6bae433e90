// Mutexes of the platform layer and the framework's CMutex over them:
// recursion for the holder, timed waits from other threads, releases by
// threads that do not hold them, and the hand-over of a mutex whose holder
// ended without releasing it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <korvane/platform/CMutex.h>

#include "support/TestUtil.h"
#include "platform/Kernel.h"
#include "platform/Threads.h"

namespace {

using kvntest::Clock;
using kvntest::MsSince;
using kvntest::Handle;

const DWORD kNotOwner = 288;  // ERROR_NOT_OWNER

// What another thread gets from a wait on h with the given time-out.
DWORD WaitFromAnotherThread(HANDLE h, DWORD timeoutMs, bool releaseAfter = true) {
    DWORD result = WAIT_FAILED;
    std::thread other([&] {
        result = KvnWaitForSingleObject(h, timeoutMs);
        if (releaseAfter && (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED)) {
            KvnReleaseMutex(h);
        }
    });
    other.join();
    return result;
}

// ---- Holding and releasing --------------------------------------------------------

TEST(PlatformMutex, TheHolderTakesItAgainAndReleasesItAsOftenAsItTookIt) {
    Handle m(KvnCreateMutex());
    ASSERT_TRUE(KvnIsHandleOpen(m));
    EXPECT_EQ(KvnWaitForSingleObject(m, 0), WAIT_OBJECT_0);
    EXPECT_EQ(KvnWaitForSingleObject(m, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitFromAnotherThread(m, 0), static_cast<DWORD>(WAIT_TIMEOUT));

    EXPECT_TRUE(KvnReleaseMutex(m));
    EXPECT_EQ(WaitFromAnotherThread(m, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_TRUE(KvnReleaseMutex(m));
    EXPECT_EQ(WaitFromAnotherThread(m, 0), WAIT_OBJECT_0);

    KvnSetLastError(0);
    EXPECT_FALSE(KvnReleaseMutex(m));
    EXPECT_EQ(KvnGetLastError(), kNotOwner);
}

TEST(PlatformMutex, AWaitFromAnotherThreadEndsAtItsTimeOutWhileTheMutexIsHeld) {
    Handle m(KvnCreateMutex());
    ASSERT_EQ(KvnWaitForSingleObject(m, 0), WAIT_OBJECT_0);
    const auto start = Clock::now();
    EXPECT_EQ(WaitFromAnotherThread(m, 30), static_cast<DWORD>(WAIT_TIMEOUT));
    const long long elapsed = MsSince(start);
    EXPECT_GE(elapsed, 14);  // Windows may end a wait up to a clock tick early
    EXPECT_LT(elapsed, 1000);

    // A waiter blocked on it gets it as soon as it is released.
    std::atomic<DWORD> result{WAIT_FAILED};
    std::thread waiter([&] {
        result = KvnWaitForSingleObject(m, 5000);
        if (result == WAIT_OBJECT_0) KvnReleaseMutex(m);
    });
    KvnSleep(20);
    EXPECT_TRUE(KvnReleaseMutex(m));
    waiter.join();
    EXPECT_EQ(result.load(), WAIT_OBJECT_0);
}

TEST(PlatformMutex, OnlyTheHolderCanReleaseIt) {
    Handle m(KvnCreateMutex());
    KvnSetLastError(0);
    EXPECT_FALSE(KvnReleaseMutex(m));  // held by nobody
    EXPECT_EQ(KvnGetLastError(), kNotOwner);

    ASSERT_EQ(KvnWaitForSingleObject(m, 0), WAIT_OBJECT_0);
    BOOL released = TRUE;
    DWORD error = 0;
    std::thread other([&] {
        released = KvnReleaseMutex(m);
        error = KvnGetLastError();
    });
    other.join();
    EXPECT_FALSE(released);
    EXPECT_EQ(error, kNotOwner);
    EXPECT_EQ(WaitFromAnotherThread(m, 0), static_cast<DWORD>(WAIT_TIMEOUT));  // still held
    EXPECT_TRUE(KvnReleaseMutex(m));
}

// ---- Holders that end --------------------------------------------------------------

unsigned TakeTwiceAndEnd(void* arg) {
    HANDLE m = static_cast<HANDLE>(arg);
    KvnWaitForSingleObject(m, 0);
    KvnWaitForSingleObject(m, 0);
    return 0;
}

TEST(PlatformMutex, AMutexLeftHeldByAnEndedThreadIsHandedOnAsAbandonedOnce) {
    Handle m(KvnCreateMutex());

    // A thread of the layer's own.
    Handle thread(KvnBeginThreadEx(&TakeTwiceAndEnd, m));
    ASSERT_TRUE(KvnIsHandleOpen(thread));
    ASSERT_EQ(KvnWaitForSingleObject(thread, 5000), WAIT_OBJECT_0);
    EXPECT_EQ(KvnWaitForSingleObject(m, 0), WAIT_ABANDONED);
    // The new holder holds it normally, once.
    EXPECT_TRUE(KvnReleaseMutex(m));
    EXPECT_FALSE(KvnReleaseMutex(m));
    EXPECT_EQ(KvnWaitForSingleObject(m, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(KvnReleaseMutex(m));

    // A thread the layer did not start.
    std::thread foreign([&] { TakeTwiceAndEnd(m); });
    foreign.join();
    EXPECT_EQ(KvnWaitForSingleObject(m, 5000), WAIT_ABANDONED);
    EXPECT_TRUE(KvnReleaseMutex(m));
    EXPECT_EQ(KvnWaitForSingleObject(m, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(KvnReleaseMutex(m));
}

TEST(PlatformMutex, AWaiterBlockedOnTheMutexGetsItAbandonedWhenTheHolderEnds) {
    Handle m(KvnCreateMutex());
    Handle taken(KvnCreateEvent(TRUE, FALSE));
    Handle go(KvnCreateEvent(TRUE, FALSE));
    Handle other(KvnCreateEvent(FALSE, FALSE));
    std::thread holder([&] {
        KvnWaitForSingleObject(m, 0);
        KvnSetEvent(taken);
        KvnWaitForSingleObject(go, 5000);
    });
    ASSERT_EQ(KvnWaitForSingleObject(taken, 5000), WAIT_OBJECT_0);

    const HANDLE handles[] = {other, m};
    KvnSetEvent(go);
    const auto start = Clock::now();
    EXPECT_EQ(KvnWaitForMultipleObjects(2, handles, 5000), WAIT_ABANDONED_0 + 1);
    EXPECT_LT(MsSince(start), 2000);
    holder.join();
    EXPECT_TRUE(KvnReleaseMutex(m));
}

// ---- CMutex -------------------------------------------------------------------------

TEST(PlatformCMutex, LockIsRecursiveAndTimesOutForOtherThreads) {
    CMutex mutex;
    ASSERT_TRUE(KvnIsHandleOpen(mutex.GetHandle()));
    EXPECT_TRUE(mutex.Lock(0));
    EXPECT_TRUE(mutex.Lock(0));

    BOOL locked = TRUE;
    long long elapsed = 0;
    std::thread other([&] {
        const auto start = Clock::now();
        locked = mutex.Lock(30);
        elapsed = MsSince(start);
    });
    other.join();
    EXPECT_FALSE(locked);
    EXPECT_GE(elapsed, 14);

    EXPECT_TRUE(mutex.Unlock());
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_FALSE(mutex.Unlock());

    std::thread taker([&] {
        locked = mutex.Lock(1000);
        if (locked) mutex.Unlock();
    });
    taker.join();
    EXPECT_TRUE(locked);
}

TEST(PlatformCMutex, LockSucceedsWhenThePreviousHolderEndedWithoutUnlocking) {
    CMutex mutex;
    std::thread holder([&] { mutex.Lock(0); });
    holder.join();
    EXPECT_TRUE(mutex.Lock(1000));
    EXPECT_TRUE(mutex.Unlock());
}

}  // namespace
