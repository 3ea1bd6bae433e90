// Files named by wide text on Windows: the C runtime's wide-name functions,
// so the UTF-16 name reaches the file system unchanged.
//
// Renaming onto an existing file fails here (POSIX rename replaces it): a
// caller that wants the target replaced removes it first.
#include "platform/Files.h"

#include <cerrno>
#include <cstdio>
#include <cwchar>

namespace {

// Room for any fopen mode ("r", "a+", "rb+", "w+, ccs=UTF-8" ...).
const int kMaxModeLength = 31;

}  // namespace

std::FILE* KvnOpenFile(const wchar_t* path, const char* mode) {
    if (!path || !mode) {
        errno = EINVAL;
        return nullptr;
    }
    // Modes are ASCII: widening is a copy of each character.
    wchar_t wideMode[kMaxModeLength + 1];
    int i = 0;
    for (; mode[i] != '\0'; ++i) {
        if (i == kMaxModeLength) {
            errno = EINVAL;
            return nullptr;
        }
        wideMode[i] = static_cast<wchar_t>(static_cast<unsigned char>(mode[i]));
    }
    wideMode[i] = L'\0';
    return _wfopen(path, wideMode);
}

int KvnRemoveFile(const wchar_t* path) {
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    return _wremove(path);
}

int KvnRenameFile(const wchar_t* from, const wchar_t* to) {
    if (!from || !to) {
        errno = EINVAL;
        return -1;
    }
    return _wrename(from, to);
}
