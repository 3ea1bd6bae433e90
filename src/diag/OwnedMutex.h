// COwnedMutex: a mutex that records the name of its holder, reports who held
// it when taking it fails, and re-creates itself after repeated failures or
// when its handle has become invalid.
#ifndef KORVANE_DIAG_OWNEDMUTEX_H
#define KORVANE_DIAG_OWNEDMUTEX_H

#include <atomic>

#include <korvane/platform/CMutex.h>

#define KVN_OWNED_MUTEX_NAME_LEN 255

class COwnedMutex : public CMutex {
public:
    COwnedMutex();

    wchar_t m_szLockedBy[KVN_OWNED_MUTEX_NAME_LEN]; // name given by the current holder
    std::atomic<int> ErrCount;                      // consecutive named failures

private:
    friend int LockOwnedMutex(COwnedMutex& m, DWORD timeoutMs, const wchar_t* owner);
    friend int UnlockOwnedMutex(COwnedMutex& m);
    void ReplaceHandle(HANDLE h) { SetHandle(h); }
};

// 1 when the calling thread now holds the mutex, 0 otherwise. owner may be null.
int LockOwnedMutex(COwnedMutex& m, DWORD timeoutMs, const wchar_t* owner);
// Releases the mutex and empties the holder's name; returns 1.
int UnlockOwnedMutex(COwnedMutex& m);

#endif
