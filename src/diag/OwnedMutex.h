// COwnedMutex: a mutex that records the name of its holder, reports who held
// it when taking it fails, and re-creates itself after repeated failures or
// when its handle has become invalid.
//
// Behind the replaceable mutex sits a second kernel mutex that is never
// replaced and guards the critical section itself: a holder still inside the
// section when the first one is re-created keeps the section to itself until
// it unlocks (see OwnedMutex.cpp).
#ifndef KORVANE_DIAG_OWNEDMUTEX_H
#define KORVANE_DIAG_OWNEDMUTEX_H

#include <atomic>
#include <mutex>

#include <korvane/platform/CMutex.h>

#define KVN_OWNED_MUTEX_NAME_LEN 255

class COwnedMutex : public CMutex {
public:
    COwnedMutex();
    ~COwnedMutex() override;

    // Copies the name given by the current holder (empty when the mutex is
    // free or was never taken) into out, KVN_OWNED_MUTEX_NAME_LEN characters.
    void GetLockedBy(wchar_t* out) const;

    std::atomic<int> ErrCount;  // consecutive named failures

private:
    friend int LockOwnedMutex(COwnedMutex& m, DWORD timeoutMs, const wchar_t* owner);
    friend int UnlockOwnedMutex(COwnedMutex& m);

    void SetLockedBy(const wchar_t* name);
    // Puts newHandle in place of `expected` unless another thread already
    // replaced it; returns the handle now in use.
    HANDLE ReplaceHandle(HANDLE expected, HANDLE newHandle, bool closeOld);

    wchar_t m_szLockedBy[KVN_OWNED_MUTEX_NAME_LEN];  // guarded by m_stateLock
    HANDLE m_hSection;                               // never replaced
    mutable std::mutex m_stateLock;  // the holder's name and the handle swap
};

// 1 when the calling thread now holds the mutex, 0 otherwise. owner may be null.
int LockOwnedMutex(COwnedMutex& m, DWORD timeoutMs, const wchar_t* owner);
// Releases the mutex and empties the holder's name; returns 1.
int UnlockOwnedMutex(COwnedMutex& m);

#endif
