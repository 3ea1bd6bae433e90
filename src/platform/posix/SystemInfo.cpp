// Facts about the machine on POSIX: the computer name is the host name
// (gethostname), read as UTF-8.
//
// Where this differs from Windows: the name keeps its case and may be longer
// than the 15 characters of a NetBIOS name. Failure codes follow
// GetComputerNameW: ERROR_BUFFER_OVERFLOW (111) with *size set to the room
// needed, ERROR_INVALID_PARAMETER for missing arguments.
#include "platform/SystemInfo.h"

#include <atomic>
#include <cerrno>
#include <string>

#include <unistd.h>

#include "platform/Kernel.h"
#include "platform/posix/PosixInternal.h"

namespace {

const DWORD kErrorBufferOverflow = 111;
const DWORD kErrorGenFailure = 31;  // what a forced failure reports

std::atomic<bool> g_failComputerName{false};

}  // namespace

BOOL KvnGetComputerName(wchar_t* buffer, DWORD* size) {
    if (!size || (!buffer && *size > 0)) {
        KvnSetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (g_failComputerName.load()) {
        KvnSetLastError(kErrorGenFailure);
        return FALSE;
    }
    char host[256];
    if (gethostname(host, sizeof host) != 0) {
        KvnSetLastError(kErrorGenFailure);
        return FALSE;
    }
    host[sizeof host - 1] = '\0';  // a truncated name need not be terminated
    std::wstring name;
    if (!kvn_posix::Utf8ToWide(host, name)) {
        KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    DWORD needed = static_cast<DWORD>(name.size()) + 1;
    if (*size < needed) {
        *size = needed;
        KvnSetLastError(kErrorBufferOverflow);
        return FALSE;
    }
    name.copy(buffer, name.size());
    buffer[name.size()] = L'\0';
    *size = needed - 1;
    return TRUE;
}

void KvnSetComputerNameFailure(BOOL fail) { g_failComputerName.store(fail != FALSE); }
