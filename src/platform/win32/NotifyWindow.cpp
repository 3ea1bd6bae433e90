// Registered notification messages on Windows, the message-only window that
// stands for an application's window in the tools and tests, and the posting
// of the notifications.
//
// KvnWaitNotifyMessage reads the calling thread's message queue: it must run
// on the thread that created the window (Windows queues a window's messages
// on its creating thread). Messages sent (not posted) to that thread while it
// waits are dispatched on the way, as any message loop would.
#include "platform/Messages.h"

#include <korvane/platform/NotifyWindow.h>

namespace {

const wchar_t kNotifyWindowClass[] = L"KorvaneNotifyWindow";

// The instance of the module this code is in (the DLL, or the program that
// links the static library), which owns the window class.
HINSTANCE ThisModule() {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                           GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&ThisModule), &module);
    return module;
}

// Registered once per process. The window procedure is the system's own, so
// the class stays usable even if a class registered by an earlier load of the
// DLL is still there (Windows keeps a DLL's classes after it is unloaded).
bool RegisterNotifyClass() {
    WNDCLASSEXW wc;
    ZeroMemory(&wc, sizeof wc);
    wc.cbSize = sizeof wc;
    wc.lpfnWndProc = DefWindowProcW;
    wc.hInstance = ThisModule();
    wc.lpszClassName = kNotifyWindowClass;
    return RegisterClassExW(&wc) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
}

// Messages the system makes up rather than anyone posting them; a message-only
// window should not see them, and if it does they are handled and skipped.
bool IsSystemMessage(UINT msg) { return msg == WM_PAINT || msg == WM_TIMER; }

}  // namespace

UINT KvnRegisterWindowMessage(const wchar_t* name) {
    if (!name) return 0;
    return RegisterWindowMessageW(name);
}

HWND KvnCreateNotifyWindow() {
    static const bool registered = RegisterNotifyClass();
    if (!registered) return nullptr;
    return CreateWindowExW(0, kNotifyWindowClass, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                           ThisModule(), nullptr);
}

void KvnDestroyNotifyWindow(HWND hWnd) {
    if (hWnd) DestroyWindow(hWnd);
}

BOOL KvnWaitNotifyMessage(HWND hWnd, DWORD timeoutMs, UINT* msg, WPARAM* wParam,
                          LPARAM* lParam) {
    if (!hWnd) return FALSE;
    // The real clock: this wait is not part of what the tick-count source of
    // the tests steers.
    const DWORD start = GetTickCount();
    for (;;) {
        MSG m;
        // Only this window's messages are taken; the queue's others stay for
        // the thread's own loop.
        while (PeekMessageW(&m, hWnd, 0, 0, PM_REMOVE)) {
            if (IsSystemMessage(m.message)) {
                DispatchMessageW(&m);
                continue;
            }
            if (msg) *msg = m.message;
            if (wParam) *wParam = m.wParam;
            if (lParam) *lParam = m.lParam;
            return TRUE;
        }
        DWORD remaining = INFINITE;
        if (timeoutMs != INFINITE) {
            DWORD elapsed = GetTickCount() - start;
            if (elapsed >= timeoutMs) return FALSE;
            remaining = timeoutMs - elapsed;
        }
        // Wakes for messages posted after the Peek above (or sent to this
        // thread); messages already in the queue for other windows do not
        // wake it again, so this never spins.
        DWORD r = MsgWaitForMultipleObjectsEx(0, nullptr, remaining,
                                              QS_POSTMESSAGE | QS_SENDMESSAGE, 0);
        if (r == WAIT_FAILED) return FALSE;
    }
}

BOOL KvnPostMessage(HWND hWnd, UINT msg, WPARAM wParam, LPARAM lParam) {
    return PostMessageW(hWnd, msg, wParam, lParam);
}
