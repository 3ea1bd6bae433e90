// COwnedMutex: taking it with a time limit under a holder's name, reporting
// failures with that name, and re-creating the mutex when it seems stuck.
//
// Why two kernel mutexes. The replaceable one (the CMutex handle) is what the
// failures are reported and counted against, and what is thrown away and
// re-created after an invalid handle or from the fourth failure in a row. A
// thread may still be inside its critical section when that happens; if the
// new mutex alone let the next caller in, both would work on the guarded
// structure (the heartbeat queue) at once. So the section itself is guarded
// by a second mutex, m_hSection, that is never replaced: LockOwnedMutex takes
// the replaceable mutex and then the section within what is left of the same
// time limit, and a caller that gets the new mutex waits there until the old
// holder unlocks. Time limits, counts and lines stay those of the single
// mutex: a section that stays busy counts as a time-out of the wait. Both are
// kernel mutexes, so a holder that ended without unlocking hands both on as
// abandoned, and the next caller gets them at once.
#include "diag/OwnedMutex.h"

#include <chrono>
#include <cwchar>

#include <korvane/platform/DStr.h>

#include "diag/Log.h"
#include "platform/DebugOutput.h"
#include "platform/Kernel.h"

namespace {

// Lines were formatted into a buffer of this many characters, terminator
// included; longer ones are cut.
const int kMaxLineLen = 1024;

// The fourth consecutive failure (ErrCount already 3) replaces the mutex.
const int kFailuresBeforeRecreate = 3;

bool Taken(DWORD r) { return r == WAIT_OBJECT_0 || r == WAIT_ABANDONED; }

// What is left of timeoutMs since start.
DWORD Remaining(std::chrono::steady_clock::time_point start, DWORD timeoutMs) {
    if (timeoutMs == INFINITE) return INFINITE;
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::steady_clock::now() - start)
                             .count();
    if (elapsed < 0) return timeoutMs;
    if (static_cast<unsigned long long>(elapsed) >= timeoutMs) return 0;
    return timeoutMs - static_cast<DWORD>(elapsed);
}

// Takes the replaceable mutex h, then the section within the rest of
// timeoutMs. WAIT_OBJECT_0 or WAIT_ABANDONED when both are held; otherwise
// WAIT_TIMEOUT or WAIT_FAILED (with the last error of the failed wait), and
// neither is held.
DWORD TakeBoth(HANDLE h, HANDLE section, DWORD timeoutMs) {
    const auto start = std::chrono::steady_clock::now();
    const DWORD r = KvnWaitForSingleObject(h, timeoutMs);
    if (!Taken(r)) return r == WAIT_TIMEOUT ? WAIT_TIMEOUT : WAIT_FAILED;
    const DWORD s = KvnWaitForSingleObject(section, Remaining(start, timeoutMs));
    if (Taken(s)) return r == WAIT_ABANDONED ? r : s;
    const DWORD error = KvnGetLastError();
    KvnReleaseMutex(h);
    KvnSetLastError(error);
    return s == WAIT_TIMEOUT ? WAIT_TIMEOUT : WAIT_FAILED;
}

// The error number of a failed TakeBoth: -1 for a time-out.
long FailureCode(DWORD r) { return r == WAIT_TIMEOUT ? -1L : static_cast<long>(KvnGetLastError()); }

// A lock failure or re-creation: to the log at level 4 and to the debugger
// output after a line break, so that it is seen without a log.
void Report(const DStr& text) {
    wchar_t line[kMaxLineLen];
    int n = text.Length() < kMaxLineLen - 1 ? text.Length() : kMaxLineLen - 1;
    std::wmemcpy(line, text.GetString(), static_cast<size_t>(n));
    line[n] = L'\0';
    WriteLog(line, 4);
    DStr debug(L"\r\n");
    debug += line;
    KvnDebugOutput(debug);
}

}  // namespace

COwnedMutex::COwnedMutex() : CMutex(), ErrCount(0), m_hSection(KvnCreateMutex()) {
    m_szLockedBy[0] = L'\0';
}

COwnedMutex::~COwnedMutex() {
    if (KvnIsHandleOpen(m_hSection)) KvnCloseHandle(m_hSection);
}

void COwnedMutex::GetLockedBy(wchar_t* out) const {
    std::lock_guard<std::mutex> guard(m_stateLock);
    std::wcscpy(out, m_szLockedBy);
}

void COwnedMutex::SetLockedBy(const wchar_t* name) {
    std::lock_guard<std::mutex> guard(m_stateLock);
    std::wcsncpy(m_szLockedBy, name, KVN_OWNED_MUTEX_NAME_LEN - 1);
    m_szLockedBy[KVN_OWNED_MUTEX_NAME_LEN - 1] = L'\0';
}

HANDLE COwnedMutex::ReplaceHandle(HANDLE expected, HANDLE newHandle, bool closeOld) {
    std::lock_guard<std::mutex> guard(m_stateLock);
    HANDLE current = GetHandle();
    if (current != expected) {
        // Another caller replaced it first. Two callers must not both close
        // the same handle: by the second close its value could already name
        // another object. Use the one already in place.
        if (KvnIsHandleOpen(newHandle)) KvnCloseHandle(newHandle);
        return current;
    }
    if (closeOld && KvnIsHandleOpen(expected)) KvnCloseHandle(expected);
    SetHandle(newHandle);
    return newHandle;
}

int LockOwnedMutex(COwnedMutex& m, DWORD timeoutMs, const wchar_t* owner) {
    const HANDLE waited = m.GetHandle();
    DWORD r = TakeBoth(waited, m.m_hSection, timeoutMs);
    if (Taken(r)) {
        if (owner) m.SetLockedBy(owner);
        m.ErrCount.store(0);
        return 1;
    }
    long error = FailureCode(r);

    // An invalid handle cannot recover: replace it at once (there is nothing
    // to close). A mutex that failed three times in a row before this call is
    // taken for stuck and replaced as well.
    const int errCount = m.ErrCount.load();
    const bool invalid = error == static_cast<long>(ERROR_INVALID_HANDLE);
    const bool stuck = errCount >= kFailuresBeforeRecreate;
    if (invalid || stuck) {
        const HANDLE current = m.ReplaceHandle(waited, KvnCreateMutex(), !invalid);
        r = TakeBoth(current, m.m_hSection, timeoutMs);
        const wchar_t* suffix = stuck ? L" ErrCount >= 3 " : L"";
        DStr line;
        if (Taken(r)) {
            if (owner) {
                m.SetLockedBy(owner);
                line.Printf(L"%ls Mutex Re-CREATED  %ls", owner, suffix);
                Report(line);
            }
            m.ErrCount.store(0);
            return 1;
        }
        error = FailureCode(r);
        if (owner) {
            line.Printf(L"%ls Mutex Re-CREATED  But Still failed !!!%ls", owner, suffix);
            Report(line);
        }
    }

    // Only named callers are reported and counted.
    if (owner) {
        wchar_t holder[KVN_OWNED_MUTEX_NAME_LEN];
        m.GetLockedBy(holder);
        DStr line;
        line.Printf(L"%ls ERROR (#%ld) Locked by %ls", owner, error, holder);
        Report(line);
        m.ErrCount.fetch_add(1);
    }
    return 0;
}

int UnlockOwnedMutex(COwnedMutex& m) {
    // The name is emptied while the section is still held, so that it never
    // wipes the name of the next holder.
    m.SetLockedBy(L"");
    KvnReleaseMutex(m.GetHandle());  // fails without effect for a holder of a replaced mutex
    KvnReleaseMutex(m.m_hSection);
    return 1;
}
