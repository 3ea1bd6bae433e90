// Kernel objects of the platform layer as a thread of the library sees them:
// events (pending sets, auto-reset consumption, manual reset), waits on one or
// several handles (array order, time-outs, invalid handles), mutexes
// (recursion, releases by non-holders, abandonment), CMutex (timed locks)
// and threads and their handles.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#if !defined(_WIN32)
#include <poll.h>
#endif

#include <korvane/platform/CMutex.h>
#include <korvane/platform/KvnWait.h>

#include "support/TestUtil.h"
#include "platform/Kernel.h"
#include "platform/Threads.h"

namespace {

using kvntest::Clock;
using kvntest::Handle;
using kvntest::MsSince;

const DWORD kTimeout = WAIT_TIMEOUT;
const DWORD kNotOwner = 288;  // ERROR_NOT_OWNER

// Expects a wait that ended at its time-out of 30 ms. Windows may end a wait
// up to one clock tick (about 16 ms) early.
void ExpectThirtyMs(Clock::time_point start) {
    EXPECT_GE(MsSince(start), 14);
    EXPECT_LT(MsSince(start), 1000);
}

// ---- Events --------------------------------------------------------------------

TEST(PlatformEvents, ASetThatNobodyWaitsForStaysPendingUntilOneWaitTakesIt) {
    Handle e(KvnCreateEvent(FALSE, FALSE));
    ASSERT_TRUE(KvnIsHandleOpen(e));
    EXPECT_EQ(KvnWaitForSingleObject(e, 0), kTimeout);
    EXPECT_TRUE(KvnSetEvent(e));
    EXPECT_TRUE(KvnSetEvent(e));  // sets do not add up
    EXPECT_EQ(KvnWaitForSingleObject(e, 0), WAIT_OBJECT_0);
    EXPECT_EQ(KvnWaitForSingleObject(e, 0), kTimeout);

    Handle initiallySet(KvnCreateEvent(FALSE, TRUE));
    EXPECT_EQ(KvnWaitForSingleObject(initiallySet, 0), WAIT_OBJECT_0);
    EXPECT_EQ(KvnWaitForSingleObject(initiallySet, 0), kTimeout);
}

TEST(PlatformEvents, OneSetReleasesOneWaiterOfAnAutoResetEventAndEveryWaiterOfAManualOne) {
    for (BOOL manual : {FALSE, TRUE}) {
        SCOPED_TRACE(manual);
        Handle e(KvnCreateEvent(manual, FALSE));
        std::atomic<int> released{0};
        auto waiter = [&] {
            if (KvnWaitForSingleObject(e, 5000) == WAIT_OBJECT_0) ++released;
        };
        std::thread first(waiter), second(waiter);
        KvnSetEvent(e);
        if (!manual) {
            for (int i = 0; i < 2000 && released.load() < 1; ++i) KvnSleep(1);
            KvnSleep(30);  // time for a wrongly released second waiter to show
            EXPECT_EQ(released.load(), 1);
            KvnSetEvent(e);
        }
        first.join();
        second.join();
        EXPECT_EQ(released.load(), 2);
        // A manual event stays set until reset.
        EXPECT_EQ(KvnWaitForSingleObject(e, 0), manual ? WAIT_OBJECT_0 : kTimeout);
        EXPECT_TRUE(KvnResetEvent(e));
        EXPECT_EQ(KvnWaitForSingleObject(e, 0), kTimeout);
    }
}

// ---- Waits ---------------------------------------------------------------------

TEST(PlatformWaitAny, TheFirstSignalledHandleInArrayOrderWinsAndOnlyItIsConsumed) {
    Handle a(KvnCreateEvent(FALSE, FALSE)), b(KvnCreateEvent(FALSE, FALSE));
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
    EXPECT_EQ(KvnWaitForMultipleObjects(3, all, 0), kTimeout);

    // A blocked waiter wakes for whichever handle is set, and consumes it.
    std::thread setter([&] {
        KvnSleep(20);
        KvnSetEvent(b);
    });
    const auto start = Clock::now();
    EXPECT_EQ(KvnWaitForMultipleObjects(2, all, 5000), WAIT_OBJECT_0 + 1);
    EXPECT_LT(MsSince(start), 2000);
    setter.join();
    EXPECT_EQ(KvnWaitForSingleObject(b, 0), kTimeout);
}

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

    // Closing a handle while another thread waits on it is safe: the wait goes
    // on to its time-out (or, if it started after the close, fails).
    HANDLE e = KvnCreateEvent(FALSE, FALSE);
    std::atomic<DWORD> result{0};
    std::thread waiter([&] { result = KvnWaitForSingleObject(e, 100); });
    KvnSleep(20);
    EXPECT_TRUE(KvnCloseHandle(e));
    waiter.join();
    EXPECT_TRUE(result.load() == kTimeout || result.load() == WAIT_FAILED);
}

// ---- Mutexes -------------------------------------------------------------------

// What another thread gets from a wait on h with the given time-out; it
// releases what it got.
DWORD WaitFromAnotherThread(HANDLE h, DWORD timeoutMs) {
    DWORD result = WAIT_FAILED;
    std::thread other([&] {
        result = KvnWaitForSingleObject(h, timeoutMs);
        if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) KvnReleaseMutex(h);
    });
    other.join();
    return result;
}

TEST(PlatformMutex, TheHolderTakesItAgainAndOnlyItReleasesItAsOftenAsItTookIt) {
    Handle m(KvnCreateMutex());
    ASSERT_TRUE(KvnIsHandleOpen(m));
    KvnSetLastError(0);
    EXPECT_FALSE(KvnReleaseMutex(m));  // held by nobody
    EXPECT_EQ(KvnGetLastError(), kNotOwner);

    EXPECT_EQ(KvnWaitForSingleObject(m, 0), WAIT_OBJECT_0);
    EXPECT_EQ(KvnWaitForSingleObject(m, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitFromAnotherThread(m, 0), kTimeout);
    BOOL released = TRUE;
    DWORD error = 0;
    std::thread other([&] {
        released = KvnReleaseMutex(m);
        error = KvnGetLastError();
    });
    other.join();
    EXPECT_FALSE(released);
    EXPECT_EQ(error, kNotOwner);

    EXPECT_TRUE(KvnReleaseMutex(m));
    EXPECT_EQ(WaitFromAnotherThread(m, 0), kTimeout);
    EXPECT_TRUE(KvnReleaseMutex(m));
    EXPECT_EQ(WaitFromAnotherThread(m, 0), WAIT_OBJECT_0);
    KvnSetLastError(0);
    EXPECT_FALSE(KvnReleaseMutex(m));
    EXPECT_EQ(KvnGetLastError(), kNotOwner);
}

unsigned TakeTwiceAndEnd(void* arg) {
    KvnWaitForSingleObject(static_cast<HANDLE>(arg), 0);
    KvnWaitForSingleObject(static_cast<HANDLE>(arg), 0);
    return 0;
}

TEST(PlatformMutex, AMutexLeftHeldByAnEndedThreadIsHandedOnAsAbandonedOnce) {
    Handle m(KvnCreateMutex());
    // A thread of the layer's own.
    Handle thread(KvnBeginThreadEx(&TakeTwiceAndEnd, m));
    ASSERT_EQ(KvnWaitForSingleObject(thread, 5000), WAIT_OBJECT_0);
    EXPECT_EQ(KvnWaitForSingleObject(m, 0), WAIT_ABANDONED);
    // The new holder holds it normally, once.
    EXPECT_TRUE(KvnReleaseMutex(m));
    EXPECT_FALSE(KvnReleaseMutex(m));
    EXPECT_EQ(KvnWaitForSingleObject(m, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(KvnReleaseMutex(m));

    // A thread the layer did not start.
    std::thread([&] { TakeTwiceAndEnd(m); }).join();
    EXPECT_EQ(KvnWaitForSingleObject(m, 5000), WAIT_ABANDONED);
    EXPECT_TRUE(KvnReleaseMutex(m));
    EXPECT_EQ(KvnWaitForSingleObject(m, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(KvnReleaseMutex(m));

    // A waiter blocked on several handles gets it abandoned when the holder ends.
    Handle taken(KvnCreateEvent(TRUE, FALSE)), go(KvnCreateEvent(TRUE, FALSE));
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

TEST(PlatformCMutex, LockIsRecursiveTimesOutForOtherThreadsAndSurvivesAHolderThatEnded) {
    CMutex mutex;
    EXPECT_TRUE(mutex.Lock(0));
    EXPECT_TRUE(mutex.Lock(0));
    BOOL locked = TRUE;
    const auto start = Clock::now();
    std::thread([&] { locked = mutex.Lock(30); }).join();
    EXPECT_FALSE(locked);
    ExpectThirtyMs(start);
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_FALSE(mutex.Unlock());
    // The previous holder ended without unlocking.
    std::thread([&] { mutex.Lock(0); }).join();
    EXPECT_TRUE(mutex.Lock(1000));
    EXPECT_TRUE(mutex.Unlock());
}

// Threads that wait on several handles at once, woken over and over: every
// set of an auto-reset event is taken by exactly one of them, and none is
// lost between a look and a sleep.
TEST(PlatformWaitAny, EverySetIsTakenByExactlyOneOfSeveralWaitersAndNoneIsLost) {
    Handle a(KvnCreateEvent(FALSE, FALSE)), b(KvnCreateEvent(FALSE, FALSE));
    Handle stop(KvnCreateEvent(TRUE, FALSE)), taken(KvnCreateEvent(FALSE, FALSE));
    std::atomic<int> counts[2] = {{0}, {0}};
    std::atomic<int> timeouts{0};
    auto waiter = [&] {
        const HANDLE handles[] = {a, b, stop};
        for (;;) {
            const DWORD r = KvnWaitForMultipleObjects(3, handles, 5000);
            if (r == WAIT_OBJECT_0 + 2) return;
            if (r == WAIT_TIMEOUT) ++timeouts;
            if (r > WAIT_OBJECT_0 + 1) return;
            ++counts[r - WAIT_OBJECT_0];
            KvnSetEvent(taken);
        }
    };
    std::thread w1(waiter), w2(waiter), w3(waiter);
    const int kRounds = 2000;
    int lost = 0;
    for (int i = 0; i < kRounds && lost == 0; ++i) {
        KvnSetEvent(i % 3 == 0 ? b : a);
        if (KvnWaitForSingleObject(taken, 5000) != WAIT_OBJECT_0) ++lost;
    }
    KvnSetEvent(stop);
    w1.join();
    w2.join();
    w3.join();
    EXPECT_EQ(lost, 0);
    EXPECT_EQ(timeouts.load(), 0);
    EXPECT_EQ(counts[0] + counts[1], kRounds);
    EXPECT_EQ(counts[1].load(), (kRounds + 2) / 3);
    EXPECT_EQ(KvnWaitForSingleObject(taken, 0), kTimeout) << "no set was taken twice";
}

TEST(PlatformCMutex, ThreadsContendingForALockNeverHoldItTogether) {
    CMutex mutex;
    long long counter = 0;  // guarded by mutex alone
    auto work = [&] {
        for (int i = 0; i < 20000; ++i) {
            ASSERT_TRUE(mutex.Lock(5000));
            ++counter;
            mutex.Unlock();
        }
    };
    std::thread t1(work), t2(work), t3(work), t4(work);
    t1.join();
    t2.join();
    t3.join();
    t4.join();
    EXPECT_EQ(counter, 80000);
}

// ---- The waits an application uses -----------------------------------------------

TEST(PlatformPublicWaits, TheSystemsFunctionsWaitOnTheLibrarysEventsAndResetThem) {
    Handle a(KvnCreateEvent(FALSE, FALSE)), b(KvnCreateEvent(TRUE, FALSE));
    const HANDLE both[] = {a, b};
    EXPECT_EQ(kvn::WaitForMultipleObjects(2, both, FALSE, 0), kvn::kWaitTimeout);
    KvnSetEvent(b);
    EXPECT_EQ(kvn::WaitForMultipleObjects(2, both, FALSE, 0), kvn::kWaitObject0 + 1);
    EXPECT_EQ(kvn::WaitForSingleObject(b, 0), kvn::kWaitObject0) << "manual: still set";
    EXPECT_TRUE(kvn::ResetEvent(b));
    EXPECT_EQ(kvn::WaitForSingleObject(b, 20), kvn::kWaitTimeout);
    KvnSetEvent(a);
    EXPECT_EQ(kvn::WaitForSingleObject(a, kvn::kInfinite), kvn::kWaitObject0);
    EXPECT_EQ(kvn::WaitForSingleObject(a, 0), kvn::kWaitTimeout) << "auto: taken";
#if !KVN_SYSTEM_WAITS
    EXPECT_EQ(kvn::WaitForMultipleObjects(2, both, TRUE, 0), kvn::kWaitFailed) << "no wait for all";
    EXPECT_EQ(kvn::WaitForSingleObject(nullptr, 0), kvn::kWaitFailed);
#endif
}

#if !KVN_SYSTEM_WAITS
TEST(PlatformPublicWaits, AnEventsDescriptorIsReadableWhileItIsSet) {
    auto readable = [](int fd) {
        pollfd p = {fd, POLLIN, 0};
        return poll(&p, 1, 0) == 1;
    };
    Handle autoReset(KvnCreateEvent(FALSE, FALSE)), manual(KvnCreateEvent(TRUE, TRUE));
    const int fa = KvnGetEventFd(autoReset), fm = KvnGetEventFd(manual);
    ASSERT_GE(fa, 0);
    ASSERT_GE(fm, 0);
    EXPECT_EQ(KvnGetEventFd(autoReset), fa) << "one descriptor per event";
    EXPECT_FALSE(readable(fa));
    EXPECT_TRUE(readable(fm)) << "created set";

    KvnSetEvent(autoReset);
    KvnSetEvent(autoReset);
    EXPECT_TRUE(readable(fa));
    EXPECT_TRUE(readable(fa)) << "looking does not take it";
    EXPECT_EQ(kvn::WaitForSingleObject(autoReset, 0), kvn::kWaitObject0);
    EXPECT_FALSE(readable(fa)) << "the wait took it";

    EXPECT_EQ(kvn::WaitForSingleObject(manual, 0), kvn::kWaitObject0);
    EXPECT_TRUE(readable(fm)) << "a manual event stays set";
    kvn::ResetEvent(manual);
    EXPECT_FALSE(readable(fm));

    // A thread blocked in poll wakes when the event is set.
    std::thread setter([&] {
        KvnSleep(20);
        KvnSetEvent(autoReset);
    });
    pollfd p = {fa, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 5000), 1);
    setter.join();
    EXPECT_EQ(KvnGetEventFd(nullptr), -1);
}
#endif

// ---- Threads -------------------------------------------------------------------

// A test thread: waits for `go`, then marks `finished` and sets `done`.
struct Job {
    HANDLE go = nullptr;
    HANDLE done = nullptr;
    std::atomic<bool> finished{false};
};

unsigned RunJob(void* arg) {
    Job* job = static_cast<Job*>(arg);
    KvnSetThreadPriorityBelowNormal();
    KvnWaitForSingleObject(job->go, 5000);
    job->finished = true;
    if (job->done) KvnSetEvent(job->done);
    return 0;
}

TEST(PlatformThreads, AThreadHandleIsSignalledOnceTheThreadHasEndedAndMayBeClosedWhileItRuns) {
    Handle go(KvnCreateEvent(TRUE, FALSE)), stop(KvnCreateEvent(TRUE, FALSE));
    Job job;
    job.go = go;
    Handle thread(KvnBeginThreadEx(&RunJob, &job));
    ASSERT_TRUE(KvnIsHandleOpen(thread));
    const HANDLE handles[] = {stop, thread};
    const auto start = Clock::now();
    EXPECT_EQ(KvnWaitForMultipleObjects(2, handles, 30), kTimeout);
    ExpectThirtyMs(start);
    EXPECT_FALSE(job.finished.load());
    KvnSetEvent(go);
    ASSERT_EQ(KvnWaitForMultipleObjects(2, handles, 5000), WAIT_OBJECT_0 + 1);
    EXPECT_TRUE(job.finished.load());
    EXPECT_EQ(KvnWaitForSingleObject(thread, 0), WAIT_OBJECT_0);  // and stays so

    Handle done(KvnCreateEvent(TRUE, FALSE)), later(KvnCreateEvent(TRUE, FALSE));
    Job closedJob;
    closedJob.go = later;
    closedJob.done = done;
    HANDLE running = KvnBeginThreadEx(&RunJob, &closedJob);
    ASSERT_TRUE(KvnIsHandleOpen(running));
    EXPECT_TRUE(KvnCloseHandle(running));
    KvnSetEvent(later);
    EXPECT_EQ(KvnWaitForSingleObject(done, 5000), WAIT_OBJECT_0);
}

}  // namespace
