// Text form of GUIDs (the RPC run-time's UuidToStringW, UuidFromStringW and
// UuidCreateNil on Windows; equivalents elsewhere).
#ifndef KORVANE_PLATFORM_UUID_H
#define KORVANE_PLATFORM_UUID_H

#include <korvane/platform/KvnTypes.h>

// The standard 36-character form, lower case, no braces, into text (room for
// 37 characters). FALSE on failure.
BOOL KvnUuidToString(const GUID* guid, wchar_t* text);
// Parses the 36-character form (hexadecimal digits in either case); FALSE and
// *guid unchanged when the text is not one.
BOOL KvnUuidFromString(const wchar_t* text, GUID* guid);
void KvnUuidCreateNil(GUID* guid);

#endif
