// CMutex: the framework's mutex object over the platform's kernel mutex.
#include <korvane/platform/CMutex.h>

#include "platform/Kernel.h"

CMutex::CMutex(BOOL bInitiallyOwn, const wchar_t* /*name: only unnamed mutexes are used*/)
    : m_hObject(KvnCreateMutex()) {
    if (bInitiallyOwn) Lock(INFINITE);
}

CMutex::~CMutex() {
    HANDLE h = m_hObject.exchange(nullptr);
    if (KvnIsHandleOpen(h)) KvnCloseHandle(h);
}

BOOL CMutex::Lock(DWORD timeoutMs) {
    DWORD r = KvnWaitForSingleObject(m_hObject.load(), timeoutMs);
    // An abandoned mutex is obtained all the same.
    return (r == WAIT_OBJECT_0 || r == WAIT_ABANDONED) ? TRUE : FALSE;
}

BOOL CMutex::Unlock() { return KvnReleaseMutex(m_hObject.load()); }
