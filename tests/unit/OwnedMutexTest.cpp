// The owned mutex: who is named when taking it fails, how failures are
// counted, when it re-creates itself, and that the section it guards is never
// shared, not even across a re-creation.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "UnitUtil.h"
#include "diag/Log.h"
#include "diag/OwnedMutex.h"
#include "platform/DebugOutput.h"
#include "platform/Kernel.h"
#include "platform/Threads.h"

namespace {

using kvntest::Clock;
using kvntest::MsSince;
using kvntest::WaitUntil;

// A thread of the layer's own that takes the mutex under `name`, stays inside
// its section until told to leave, then unlocks, or ends without unlocking.
struct Holder {
    COwnedMutex& mutex;
    const wchar_t* name;
    bool unlockOnLeave = true;
    std::atomic<bool> inside{false};
    std::atomic<bool> leave{false};
    HANDLE thread = nullptr;

    explicit Holder(COwnedMutex& m, const wchar_t* n = L"Holder", bool unlock = true)
        : mutex(m), name(n), unlockOnLeave(unlock) {
        thread = KvnBeginThreadEx(&Run, this);
        EXPECT_TRUE(WaitUntil([&] { return inside.load(); }));
    }
    static unsigned Run(void* arg) {
        Holder* self = static_cast<Holder*>(arg);
        if (!LockOwnedMutex(self->mutex, 5000, self->name)) return 1;
        self->inside = true;
        WaitUntil([&] { return self->leave.load(); });
        self->inside = false;
        if (self->unlockOnLeave) UnlockOwnedMutex(self->mutex);
        return 0;
    }
    void Leave() {
        leave = true;
        if (!thread) return;
        KvnWaitForSingleObject(thread, 10000);
        KvnCloseHandle(thread);
        thread = nullptr;
    }
    ~Holder() { Leave(); }
};

class OwnedMutexTest : public kvnunit::CapturedLogTest {
protected:
    void SetUp() override {
        CapturedLogTest::SetUp();
        InitLog(4, nullptr, 0);
    }

    // Every reported line goes to the log at level 4 and, after a line
    // break, to the debugger output.
    void ExpectLines(const std::vector<std::wstring>& lines) {
        EXPECT_EQ(trace_.Get(), lines);
        std::vector<std::wstring> debug;
        for (const auto& line : lines) debug.push_back(L"\r\n" + line);
        EXPECT_EQ(debugger_.Get(), debug);
    }
};

TEST_F(OwnedMutexTest, ALockLeftByAnEndedHolderOrAnInvalidHandleIsGotAtOnce) {
    COwnedMutex m;
    Holder(m, L"Holder", false).Leave();
    auto start = Clock::now();
    EXPECT_EQ(LockOwnedMutex(m, 2000, L"Suivant"), 1);
    EXPECT_LT(MsSince(start), 1000);
    EXPECT_EQ(m.ErrCount.load(), 0);
    ExpectLines({});
    UnlockOwnedMutex(m);

    // An invalid handle is replaced.
    KvnCloseHandle(m.GetHandle());
    start = Clock::now();
    EXPECT_EQ(LockOwnedMutex(m, 2000, L"ResetFifo"), 1);
    EXPECT_LT(MsSince(start), 1000);
    ExpectLines({L"ResetFifo Mutex Re-CREATED  "});
    UnlockOwnedMutex(m);
}

TEST_F(OwnedMutexTest, ThreeFailuresAreReportedAndTheFourthRecreatesTheMutex) {
    COwnedMutex m;
    const HANDLE original = m.GetHandle();
    Holder holder(m);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(LockOwnedMutex(m, 50, L"CNewQuillonFifo::GetFifo"), 0);
    EXPECT_EQ(m.ErrCount.load(), 3);

    // The holder leaves its section once the mutex has been replaced; only
    // then may the caller get in.
    std::thread leaver([&] {
        WaitUntil([&] { return m.GetHandle() != original; });
        holder.Leave();
    });
    EXPECT_EQ(LockOwnedMutex(m, 400, L"CNewQuillonFifo::GetFifo"), 1);
    const bool holderStillInside = holder.inside;
    leaver.join();

    EXPECT_FALSE(holderStillInside);
    EXPECT_NE(m.GetHandle(), original);
    EXPECT_EQ(m.ErrCount.load(), 0);
    const std::wstring failure = L"CNewQuillonFifo::GetFifo ERROR (#-1) Locked by Holder";
    ExpectLines(
        {failure, failure, failure, L"CNewQuillonFifo::GetFifo Mutex Re-CREATED   ErrCount >= 3 "});
    wchar_t lockedBy[KVN_OWNED_MUTEX_NAME_LEN];
    m.GetLockedBy(lockedBy);
    EXPECT_STREQ(lockedBy, L"CNewQuillonFifo::GetFifo");
    UnlockOwnedMutex(m);
}

TEST_F(OwnedMutexTest, ASectionStillHeldAcrossARecreationIsNotShared) {
    COwnedMutex m;
    Holder holder(m);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(LockOwnedMutex(m, 30, L"AddFifo"), 0);
    // The fourth failure replaces the mutex, but the holder is still inside.
    EXPECT_EQ(LockOwnedMutex(m, 100, L"AddFifo"), 0);
    EXPECT_TRUE(holder.inside);
    EXPECT_EQ(m.ErrCount.load(), 4);
    const auto lines = trace_.Get();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[3], L"AddFifo Mutex Re-CREATED  But Still failed !!! ErrCount >= 3 ");
    EXPECT_EQ(lines[4], L"AddFifo ERROR (#-1) Locked by Holder");

    holder.Leave();
    EXPECT_EQ(LockOwnedMutex(m, 1000, L"AddFifo"), 1);
    EXPECT_EQ(m.ErrCount.load(), 0);
    UnlockOwnedMutex(m);
}

TEST_F(OwnedMutexTest, AFailureAfterAnUnlockNamesNoHolderAndACallerWithoutANameIsNotCounted) {
    COwnedMutex m;
    ASSERT_EQ(LockOwnedMutex(m, 100, L"Premier"), 1);
    UnlockOwnedMutex(m);

    Holder anonymous(m, nullptr);
    EXPECT_EQ(LockOwnedMutex(m, 20, L"Second"), 0);
    EXPECT_EQ(m.ErrCount.load(), 1);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(LockOwnedMutex(m, 20, nullptr), 0);
    EXPECT_EQ(m.ErrCount.load(), 1);
    ExpectLines({L"Second ERROR (#-1) Locked by "});
}

TEST_F(OwnedMutexTest, ManyThreadsNeverShareTheSectionWhileTheMutexIsRecreated) {
    g_logLevel = 0;  // the debugger output still counts the re-creations
    COwnedMutex m;
    const int kThreads = 4, kEntries = 8;
    int counter = 0;  // plain on purpose: only the section guards it
    std::atomic<int> insideNow{0};
    std::atomic<bool> overlap{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            const auto start = Clock::now();
            for (int entries = 0; entries < kEntries && MsSince(start) < 10000;) {
                // Time limits far below the holding time: failures pile up
                // and the mutex is re-created again and again.
                if (!LockOwnedMutex(m, 2, L"Worker")) continue;
                if (insideNow.fetch_add(1) != 0) overlap = true;
                ++counter;
                std::this_thread::sleep_for(std::chrono::milliseconds(15));
                insideNow.fetch_sub(1);
                UnlockOwnedMutex(m);
                ++entries;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_FALSE(overlap);
    EXPECT_EQ(counter, kThreads * kEntries);
    EXPECT_GT(debugger_.CountContaining(L"Re-CREATED"), 0);
}

}  // namespace
