// The one time limit of the request hand-off that tests may shorten.
#include "client/ClientTimings.h"

#include <atomic>

namespace {
std::atomic<DWORD> g_dwAnswerWaitMs{KVN_ANSWER_WAIT_MS};
}  // namespace

DWORD KvnGetAnswerWaitMs() { return g_dwAnswerWaitMs.load(); }

void KvnSetAnswerWaitForTests(DWORD ms) {
    g_dwAnswerWaitMs.store(ms == 0 ? KVN_ANSWER_WAIT_MS : ms);
}
