/// \file
/// Waiting on the library's events and reading its notifications, with one
/// application source for every system.
///
/// The client gives out event handles (CKorvaneClient::GetEventPerteComm,
/// GetEventCommOK and the others) and posts registered messages to the
/// window given to Init. On Windows an application waits on the handles and
/// reads the messages with the system's own functions; kvn::WaitForSingleObject
/// and the others below are those functions. Elsewhere the library provides
/// them, with Windows' results:
/// - kvn::WaitForSingleObject(h, ms) and kvn::WaitForMultipleObjects(n,
///   handles, FALSE, ms) give kvn::kWaitObject0 + i for the handle that ended
///   the wait (the first signalled one in array order; an auto-reset event is
///   consumed by the wait that returns it, and by no other), kvn::kWaitTimeout
///   when ms ran out (kvn::kInfinite: no limit), kvn::kWaitFailed for a null
///   or closed handle (only the library's handles may be given: another value
///   is not told apart from one). Waiting for all the handles at once
///   (waitAll TRUE) fails there.
/// - kvn::ResetEvent(h) resets a manual-reset event; FALSE for a bad handle.
/// - kvn::PeekMessageW and kvn::GetMessageW read the messages posted to a
///   window of KvnCreateNotifyWindow (null: any such window), oldest first,
///   among those from filterMin to filterMax (both 0: all of them).
///   PeekMessageW returns at once, FALSE when there is none, and leaves the
///   message where it is unless removeMsg is kvn::kPmRemove; GetMessageW
///   waits for one and takes it (TRUE; -1 for a window that is no more).
///   kvn::RegisterWindowMessageW gives the identifier of a message name.
///
/// With KVN_WINDOWS_TYPES defined (see KvnTypes.h) the same names are also
/// declared at global scope where the system lacks them, with the
/// WAIT_OBJECT_0, WAIT_ABANDONED_0, WAIT_TIMEOUT, WAIT_FAILED, PM_NOREMOVE and
/// PM_REMOVE constants, so that code written for Windows builds unchanged.
///
/// On Linux, every event handle of the library also has a descriptor that an
/// event loop can watch (poll, epoll, select, libuv's uv_poll_t, Qt's
/// QSocketNotifier, asio's posix::stream_descriptor): KvnGetEventFd(h). It is
/// readable while the event is set; the application then takes the event with
/// a wait (timeout 0), which for an auto-reset event such as those of
/// GetEventPerteComm and GetEventCommOK resets it, and the descriptor stops
/// being readable. Only the readiness of the descriptor means something: do
/// not read from it, write to it or close it. Each set after a take makes it
/// readable anew, so edge-triggered watches work too. It lives as long as its
/// event, that is as long as the client object: CKorvaneClient::Free and a
/// later Init leave it alone (Free sets the event of GetEventPerteComm when
/// every link was up, so a loop still watching sees that loss), and the
/// object's destructor closes it. Take it out of the loop before destroying
/// the object, as its number may then go to another file.
#ifndef KORVANE_PLATFORM_KVNWAIT_H
#define KORVANE_PLATFORM_KVNWAIT_H

#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

#if KVN_SYSTEM_WAITS

namespace kvn {
using ::WaitForSingleObject;
using ::WaitForMultipleObjects;
using ::ResetEvent;
using ::MSG;
using ::PeekMessageW;
using ::GetMessageW;
using ::RegisterWindowMessageW;
constexpr DWORD kWaitObject0 = WAIT_OBJECT_0;
constexpr DWORD kWaitAbandoned0 = WAIT_ABANDONED_0;
constexpr DWORD kWaitTimeout = WAIT_TIMEOUT;
constexpr DWORD kWaitFailed = WAIT_FAILED;
constexpr UINT kPmNoRemove = PM_NOREMOVE;
constexpr UINT kPmRemove = PM_REMOVE;
}  // namespace kvn

#else

namespace kvn {
constexpr DWORD kWaitObject0 = 0x00000000u;
constexpr DWORD kWaitAbandoned0 = 0x00000080u;
constexpr DWORD kWaitTimeout = 0x00000102u;
constexpr DWORD kWaitFailed = 0xFFFFFFFFu;
constexpr UINT kPmNoRemove = 0;
constexpr UINT kPmRemove = 1;

struct POINT {
    long x;
    long y;
};

/// A message read from a window: where it was posted, its identifier and its
/// two parameters (time and pt are 0).
struct MSG {
    HWND hwnd;
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    DWORD time;
    POINT pt;
};

KVN_API DWORD WaitForSingleObject(HANDLE h, DWORD timeoutMs);
KVN_API DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, Bool waitAll,
                                     DWORD timeoutMs);
KVN_API Bool ResetEvent(HANDLE h);
KVN_API Bool PeekMessageW(MSG* msg, HWND hWnd, UINT filterMin, UINT filterMax, UINT removeMsg);
KVN_API Bool GetMessageW(MSG* msg, HWND hWnd, UINT filterMin, UINT filterMax);
KVN_API UINT RegisterWindowMessageW(const wchar_t* name);
}  // namespace kvn

/// Linux: the descriptor that is readable while the event h is set (see
/// above); -1 for a handle that is not an event of the library, or when the
/// system refused one.
KVN_API int KvnGetEventFd(kvn::HANDLE h);

#if defined(KVN_WINDOWS_TYPES)
using kvn::WaitForSingleObject;
using kvn::WaitForMultipleObjects;
using kvn::ResetEvent;
using kvn::POINT;
using kvn::MSG;
using kvn::PeekMessageW;
using kvn::GetMessageW;
using kvn::RegisterWindowMessageW;
#ifndef WAIT_OBJECT_0
#define WAIT_OBJECT_0 0x00000000u
#define WAIT_ABANDONED 0x00000080u
#define WAIT_ABANDONED_0 0x00000080u
#define WAIT_TIMEOUT 0x00000102u
#define WAIT_FAILED 0xFFFFFFFFu
#endif
#ifndef PM_REMOVE
#define PM_NOREMOVE 0x0000u
#define PM_REMOVE 0x0001u
#endif
#endif  // KVN_WINDOWS_TYPES

#endif  // KVN_SYSTEM_WAITS

#endif
