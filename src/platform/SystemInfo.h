// Facts about the machine.
#ifndef KORVANE_PLATFORM_SYSTEMINFO_H
#define KORVANE_PLATFORM_SYSTEMINFO_H

#include <korvane/platform/KvnTypes.h>

// The computer's name into buffer (*size characters of room, terminator
// included); on success *size receives the name's length. FALSE on failure.
BOOL KvnGetComputerName(wchar_t* buffer, DWORD* size);

// Tests only: makes KvnGetComputerName fail (TRUE) or work again (FALSE).
void KvnSetComputerNameFailure(BOOL fail);

#endif
