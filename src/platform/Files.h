// Files named by wide text. The platform decides how a wide name becomes a
// name of its file system (UTF-16 on Windows, UTF-8 elsewhere).
#ifndef KORVANE_PLATFORM_FILES_H
#define KORVANE_PLATFORM_FILES_H

#include <cstdio>

#include <korvane/platform/KvnTypes.h>

// fopen with a wide name and a narrow mode ("r", "a+" ...); null on failure.
std::FILE* KvnOpenFile(const wchar_t* path, const char* mode);
// 0 on success, as remove and rename.
int KvnRemoveFile(const wchar_t* path);
int KvnRenameFile(const wchar_t* from, const wchar_t* to);

#endif
