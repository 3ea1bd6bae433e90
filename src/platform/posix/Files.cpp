// Files named by wide text on POSIX: the name is converted to UTF-8 (without
// regard to the process locale) and handed to the C library.
//
// Where this differs from Windows: names are case-sensitive, and renaming
// onto an existing file replaces it (Windows' rename refuses).
#include "platform/Files.h"

#include <cerrno>
#include <string>

#include "platform/posix/PosixInternal.h"

namespace {

bool ToNativeName(const wchar_t* path, std::string& name) {
    if (!path || !*path) {
        errno = ENOENT;
        return false;
    }
    if (!kvn_posix::WideToUtf8(path, name)) {
        errno = ENOMEM;
        return false;
    }
    return true;
}

}  // namespace

std::FILE* KvnOpenFile(const wchar_t* path, const char* mode) {
    std::string name;
    if (!mode || !ToNativeName(path, name)) return nullptr;
    return std::fopen(name.c_str(), mode);
}

int KvnRemoveFile(const wchar_t* path) {
    std::string name;
    if (!ToNativeName(path, name)) return -1;
    return std::remove(name.c_str());
}

int KvnRenameFile(const wchar_t* from, const wchar_t* to) {
    std::string oldName;
    std::string newName;
    if (!ToNativeName(from, oldName) || !ToNativeName(to, newName)) return -1;
    return std::rename(oldName.c_str(), newName.c_str());
}
