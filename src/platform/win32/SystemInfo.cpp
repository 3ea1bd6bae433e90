// Facts about the machine on Windows: the computer's NetBIOS name.
#include "platform/SystemInfo.h"

#include <atomic>

namespace {

std::atomic<bool> g_failComputerName{false};

}  // namespace

BOOL KvnGetComputerName(wchar_t* buffer, DWORD* size) {
    if (g_failComputerName.load()) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    return GetComputerNameW(buffer, size);
}

void KvnSetComputerNameFailure(BOOL fail) { g_failComputerName.store(fail != FALSE); }
