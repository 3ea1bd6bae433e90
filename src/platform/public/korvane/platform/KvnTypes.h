/// \file
/// Basic platform types that appear in the library's exported signatures, in
/// the namespace kvn so that an application's own headers never meet them.
/// Windows' BOOL, the 32-bit truth value, is kvn::Bool: unixODBC defines BOOL
/// as a macro, which would rewrite any name spelt BOOL, qualified or not.
///
/// On Windows they are the system's own (<windows.h>, which an application of
/// the library includes anyway): kvn::HANDLE is the global `HANDLE`, and so
/// on. Elsewhere they are defined here with the same sizes and layouts,
/// inside kvn only: other headers of the platform (unixODBC's <sqltypes.h>
/// among them) define BOOL, HWND or DWORD at global scope in ways of their
/// own, and the public headers must be includable beside them in any order.
/// This reference shows the definitions made outside Windows.
///
/// Code written against Windows that wants the bare names (BOOL, DWORD,
/// HANDLE, SOCKET, SYSTEMTIME, GUID, __int64, TRUE, INFINITE ...) on every
/// platform defines KVN_WINDOWS_TYPES before including the library's headers;
/// it then cannot also include headers that define those names themselves.
/// The library and its own tools are built that way.
///
/// This is the only public header that knows which system it is built for:
// KVN_SYSTEM_WAITS tells the others whether the system has its own waits and
// message functions (Windows) or the library provides them (KvnWait.h).
#ifndef KORVANE_PLATFORM_KVNTYPES_H
#define KORVANE_PLATFORM_KVNTYPES_H

#if defined(_WIN32)

#define KVN_SYSTEM_WAITS 1

// Lean or not, before or after the application's own <windows.h>: the
// application decides; only what every variant declares is used here. A
// program that uses Windows Sockets 2 includes <winsock2.h> first, as
// Windows requires.
#if defined(KVN_WINDOWS_TYPES)
#include <winsock2.h>
#endif
#include <windows.h>

namespace kvn {
typedef ::BOOL Bool;
using ::BYTE;
using ::WORD;
using ::DWORD;
using ::UINT;
using ::UINT_PTR;
using ::LONG_PTR;
using ::WPARAM;
using ::LPARAM;
using ::HANDLE;
using ::HWND;
using ::SYSTEMTIME;
using ::GUID;
// Windows Sockets' SOCKET, spelt without <winsock2.h> (which must come before
// <windows.h> and so cannot be pulled in here).
typedef UINT_PTR SOCKET;
}  // namespace kvn

#else  // POSIX

#define KVN_SYSTEM_WAITS 0

#include <cstddef>
#include <cstdint>

/// The platform types of the library's signatures.
namespace kvn {
typedef int Bool;  ///< Windows' BOOL: 0 false, anything else true
typedef unsigned char BYTE;
typedef unsigned short WORD;
typedef std::uint32_t DWORD;
typedef unsigned int UINT;
typedef std::uintptr_t UINT_PTR;
typedef std::intptr_t LONG_PTR;
typedef UINT_PTR WPARAM;  ///< first parameter of a posted message
typedef LONG_PTR LPARAM;  ///< second parameter of a posted message
/// An event, mutex or thread of the library; null for none.
typedef void* HANDLE;

struct HWND__;
/// A window: outside Windows, the notification queue of NotifyWindow.h.
typedef HWND__* HWND;

/// A socket handle is an unsigned integer as on Windows; the invalid value
/// has all bits set.
typedef UINT_PTR SOCKET;

/// A date and time as Windows lays it out (CKorvaneClient::GetData).
struct SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};

/// A GUID as Windows lays it out: Data1 to Data3 in the machine's byte order,
/// then 8 bytes.
struct GUID {
    std::uint32_t Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
};
}  // namespace kvn

#endif  // _WIN32

namespace kvn {
/// The wait without limit (Windows' INFINITE).
constexpr DWORD kInfinite = 0xFFFFFFFFu;
}  // namespace kvn

#if defined(KVN_WINDOWS_TYPES) && !defined(_WIN32)
typedef kvn::Bool BOOL;
using kvn::BYTE;
using kvn::WORD;
using kvn::DWORD;
using kvn::UINT;
using kvn::UINT_PTR;
using kvn::LONG_PTR;
using kvn::WPARAM;
using kvn::LPARAM;
using kvn::HANDLE;
using kvn::HWND;
using kvn::SOCKET;
using kvn::SYSTEMTIME;
using kvn::GUID;
typedef long long __int64;

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
#endif  // KVN_WINDOWS_TYPES on POSIX

#endif
