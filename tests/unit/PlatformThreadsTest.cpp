// Threads of the platform layer, sleeping, and the tick count with its test
// source: a thread's handle tells when the thread has ended, and a replaced
// tick source changes what KvnGetTickCount says but not how long waits last.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "support/TestUtil.h"
#include "platform/Kernel.h"
#include "platform/Threads.h"

namespace {

using kvntest::Clock;
using kvntest::MsSince;
using kvntest::Handle;

// What a test thread is given: it waits for `go`, then marks `done`.
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

void RunJobNoResult(void* arg) { RunJob(arg); }

// ---- Thread handles ------------------------------------------------------------------

TEST(PlatformThreads, AThreadHandleIsSignalledOnceTheThreadHasEndedAndStaysSo) {
    Handle go(KvnCreateEvent(TRUE, FALSE));
    Job job;
    job.go = go;
    Handle thread(KvnBeginThreadEx(&RunJob, &job));
    ASSERT_TRUE(KvnIsHandleOpen(thread));

    EXPECT_EQ(KvnWaitForSingleObject(thread, 20), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_FALSE(job.finished.load());
    KvnSetEvent(go);
    ASSERT_EQ(KvnWaitForSingleObject(thread, 5000), WAIT_OBJECT_0);
    EXPECT_TRUE(job.finished.load());
    EXPECT_EQ(KvnWaitForSingleObject(thread, 0), WAIT_OBJECT_0);
}

TEST(PlatformThreads, AThreadHandleIsWaitedOnAmongOtherHandles) {
    Handle stop(KvnCreateEvent(TRUE, FALSE));
    Handle go(KvnCreateEvent(TRUE, FALSE));
    Job job;
    job.go = go;
    Handle thread(KvnBeginThreadEx(&RunJob, &job));
    const HANDLE handles[] = {stop, thread};
    EXPECT_EQ(KvnWaitForMultipleObjects(2, handles, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    KvnSetEvent(go);
    EXPECT_EQ(KvnWaitForMultipleObjects(2, handles, 5000), WAIT_OBJECT_0 + 1);
}

TEST(PlatformThreads, ClosingTheHandleOfARunningThreadLetsItRunToItsEnd) {
    Handle go(KvnCreateEvent(TRUE, FALSE));
    Handle done(KvnCreateEvent(TRUE, FALSE));
    Job job;
    job.go = go;
    job.done = done;
    HANDLE thread = KvnBeginThreadEx(&RunJob, &job);
    ASSERT_TRUE(KvnIsHandleOpen(thread));
    EXPECT_TRUE(KvnCloseHandle(thread));
    KvnSetEvent(go);
    EXPECT_EQ(KvnWaitForSingleObject(done, 5000), WAIT_OBJECT_0);
}

TEST(PlatformThreads, AThreadWithoutAHandleRuns) {
    Handle go(KvnCreateEvent(TRUE, TRUE));
    Handle done(KvnCreateEvent(TRUE, FALSE));
    Job job;
    job.go = go;
    job.done = done;
    ASSERT_TRUE(KvnBeginThread(&RunJobNoResult, &job));
    EXPECT_EQ(KvnWaitForSingleObject(done, 5000), WAIT_OBJECT_0);
}

// ---- Time --------------------------------------------------------------------------------

TEST(PlatformTime, SleepLastsAtLeastTheTimeAsked) {
    const auto start = Clock::now();
    KvnSleep(30);
    EXPECT_GE(MsSince(start), 29);
    EXPECT_LT(MsSince(start), 1000);
}

std::atomic<DWORD> g_fakeTicks{0};
DWORD FakeTicks() { return g_fakeTicks.load(); }

TEST(PlatformTime, AnInjectedTickSourceReplacesTheTickCountButNotTheClockOfWaits) {
    const DWORD before = KvnGetTickCount();
    KvnSleep(40);
    const DWORD after = KvnGetTickCount();
    // The Windows tick advances in steps of about 15.6 ms.
    EXPECT_GE(static_cast<DWORD>(after - before), 20u);  // unsigned: correct across a wrap
    EXPECT_LT(static_cast<DWORD>(after - before), 1000u);

    g_fakeTicks = 0xFFFFFFF0u;
    KvnSetTickCountSource(&FakeTicks);
    EXPECT_EQ(KvnGetTickCount(), 0xFFFFFFF0u);
    Handle e(KvnCreateEvent(FALSE, FALSE));
    const auto start = Clock::now();
    EXPECT_EQ(KvnWaitForSingleObject(e, 30), static_cast<DWORD>(WAIT_TIMEOUT));
    KvnSleep(10);
    EXPECT_GE(MsSince(start), 24);
    EXPECT_EQ(KvnGetTickCount(), 0xFFFFFFF0u);
    g_fakeTicks = 5;
    EXPECT_EQ(KvnGetTickCount(), 5u);

    KvnSetTickCountSource(nullptr);
    const DWORD restored = KvnGetTickCount();
    EXPECT_LT(static_cast<DWORD>(restored - after), 5000u);
}

}  // namespace
