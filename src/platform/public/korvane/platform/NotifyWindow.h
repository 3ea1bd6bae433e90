/// \file
/// Registered notification messages and the window that receives them.
///
/// The library tells an application about its link to the service by posting
/// registered messages to a window the application gives to
/// CKorvaneClient::Init. On Windows that is a real window; these functions
/// create a message-only window and read what was posted to it (on the thread
/// that created it). Elsewhere the "window" is a message queue standing in for
/// one, which any thread may read.
#ifndef KORVANE_PLATFORM_NOTIFYWINDOW_H
#define KORVANE_PLATFORM_NOTIFYWINDOW_H

#include <korvane/KvnExport.h>
#include <korvane/platform/KvnTypes.h>

/// The identifier of a registered message name: the same name gives the same
/// identifier throughout the process (on Windows, throughout the session).
/// Identifiers are in the range 0xC000 to 0xFFFF; 0 means failure.
KVN_API kvn::UINT KvnRegisterWindowMessage(const wchar_t* name);

/// Creates a window that can receive posted messages; null on failure. The
/// application owns it and destroys it with KvnDestroyNotifyWindow after the
/// CKorvaneClient that posts to it has been freed.
KVN_API kvn::HWND KvnCreateNotifyWindow();
/// Destroys the window; what is posted to it later is lost.
KVN_API void KvnDestroyNotifyWindow(kvn::HWND hWnd);

/// Waits up to timeoutMs (kvn::kInfinite: without limit) for a message posted
/// to hWnd and takes the oldest one. TRUE with the message (each out-pointer
/// may be null), FALSE when none came in time, or when the window does not
/// exist or is destroyed meanwhile.
KVN_API kvn::Bool KvnWaitNotifyMessage(kvn::HWND hWnd, kvn::DWORD timeoutMs, kvn::UINT* msg,
                                       kvn::WPARAM* wParam, kvn::LPARAM* lParam);

#endif
