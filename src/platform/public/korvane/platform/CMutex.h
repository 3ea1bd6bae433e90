// CMutex: the application framework's mutex object: an unnamed kernel mutex,
// recursive for the thread that holds it, taken with a time limit.
//
// Lock returns TRUE when the calling thread now holds the mutex, also when
// the previous holder ended without releasing it (the wait then reports the
// mutex as abandoned, and the new holder gets it all the same).
#ifndef KORVANE_PLATFORM_CMUTEX_H
#define KORVANE_PLATFORM_CMUTEX_H

#include <atomic>

#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

class KVN_API CMutex {
public:
    explicit CMutex(kvn::Bool bInitiallyOwn = 0, const wchar_t* name = nullptr);
    virtual ~CMutex();

    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    virtual kvn::Bool Lock(kvn::DWORD timeoutMs = kvn::kInfinite);
    virtual kvn::Bool Unlock();

    // The kernel mutex currently behind the object. A derived lock may replace
    // it (the object stays the same, so its users keep their reference).
    kvn::HANDLE GetHandle() const { return m_hObject.load(); }

protected:
    // Stores a new kernel mutex; the previous one is not closed here.
    void SetHandle(kvn::HANDLE h) { m_hObject.store(h); }

private:
    std::atomic<kvn::HANDLE> m_hObject;
};

#endif
