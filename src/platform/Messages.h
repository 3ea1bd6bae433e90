// Posting notification messages to the application's window (see the public
// korvane/platform/NotifyWindow.h for registration and for the window itself).
#ifndef KORVANE_PLATFORM_MESSAGES_H
#define KORVANE_PLATFORM_MESSAGES_H

#include <korvane/platform/KvnTypes.h>
#include <korvane/platform/NotifyWindow.h>

// Posts without waiting for the message to be processed; FALSE when hWnd is
// not a window.
BOOL KvnPostMessage(HWND hWnd, UINT msg, WPARAM wParam, LPARAM lParam);

#endif
