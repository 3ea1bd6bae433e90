// The time limits that tests may shorten: the answer wait, and the waits for
// a thread to end.
#include "client/ClientTimings.h"

#include <atomic>

namespace {
std::atomic<DWORD> g_dwAnswerWaitMs{KVN_ANSWER_WAIT_MS};
std::atomic<DWORD> g_dwStopWaitCapMs{0};
}  // namespace

DWORD KvnGetAnswerWaitMs() { return g_dwAnswerWaitMs.load(); }

void KvnSetAnswerWaitForTests(DWORD ms) {
    g_dwAnswerWaitMs.store(ms == 0 ? KVN_ANSWER_WAIT_MS : ms);
}

DWORD KvnStopWaitMs(DWORD ms) {
    const DWORD cap = g_dwStopWaitCapMs.load();
    return cap != 0 && cap < ms ? cap : ms;
}

void KvnSetStopWaitsForTests(DWORD ms) { g_dwStopWaitCapMs.store(ms); }
