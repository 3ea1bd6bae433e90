// Basic platform types that appear in the library's exported signatures.
//
// On Windows they are the system's own (an application that uses the library
// includes the Windows headers anyway, and the layouts must be the system's).
// Elsewhere the same names are defined here with the same sizes and layouts,
// so that the rest of the library and its applications read the same on both.
//
// This is the only public header that knows which system it is built for.
#ifndef KORVANE_PLATFORM_KVNTYPES_H
#define KORVANE_PLATFORM_KVNTYPES_H

#if defined(_WIN32)

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <winsock2.h>
#include <windows.h>

#else  // POSIX

#include <cstdint>
#include <cstddef>

typedef int BOOL;
typedef unsigned char BYTE;
typedef unsigned short WORD;
typedef std::uint32_t DWORD;
typedef unsigned int UINT;
typedef std::uintptr_t UINT_PTR;
typedef std::intptr_t LONG_PTR;
typedef UINT_PTR WPARAM;
typedef LONG_PTR LPARAM;
typedef void* HANDLE;
typedef long long __int64;

struct HWND__;
typedef HWND__* HWND;

// A socket handle is an unsigned integer as on Windows; the invalid value has
// all bits set.
typedef UINT_PTR SOCKET;
#define INVALID_SOCKET (static_cast<SOCKET>(~static_cast<SOCKET>(0)))

#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)))

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
#ifndef INFINITE
#define INFINITE 0xFFFFFFFFu
#endif

typedef struct _SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
} SYSTEMTIME;

typedef struct _GUID {
    std::uint32_t Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
} GUID;

#endif  // _WIN32

#endif
