/// \file
/// CMutex, the application framework's mutex object.
#ifndef KORVANE_PLATFORM_CMUTEX_H
#define KORVANE_PLATFORM_CMUTEX_H

#include <atomic>

#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

/// The application framework's mutex object: an unnamed kernel mutex,
/// recursive for the thread that holds it, taken with a time limit. Any
/// thread may lock it; the holder unlocks it as many times as it locked it.
class KVN_API CMutex {
public:
    /// A new mutex, held by the calling thread when bInitiallyOwn is
    /// non-zero. name is ignored: only unnamed mutexes are made.
    explicit CMutex(kvn::Bool bInitiallyOwn = 0, const wchar_t* name = nullptr);
    /// Closes the kernel mutex; nobody may hold it or wait for it any more.
    virtual ~CMutex();

    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    /// TRUE when the calling thread now holds the mutex, also when the
    /// previous holder ended without releasing it (the mutex is then
    /// abandoned, and the new holder gets it all the same); FALSE when
    /// timeoutMs ran out first.
    virtual kvn::Bool Lock(kvn::DWORD timeoutMs = kvn::kInfinite);
    /// Releases one hold: TRUE, or FALSE when the calling thread does not
    /// hold the mutex.
    virtual kvn::Bool Unlock();

    /// The kernel mutex currently behind the object; it stays the object's. A
    /// derived lock may replace it (the object stays the same, so its users
    /// keep their reference).
    kvn::HANDLE GetHandle() const { return m_hObject.load(); }

    /// \cond INTERNAL
protected:
    // Stores a new kernel mutex; the previous one is not closed here.
    void SetHandle(kvn::HANDLE h) { m_hObject.store(h); }

private:
    std::atomic<kvn::HANDLE> m_hObject;
    /// \endcond
};

#endif
