// Registered window messages and the notification "window" on POSIX.
//
// There are no windows: a notification window is a message queue object
// whose address is the HWND. Posting appends to its queue and wakes a thread
// waiting in KvnWaitNotifyMessage; destroying it wakes that thread too, and
// later posts to it fail. Message names get process-wide identifiers from
// 0xC000 upward.
//
// Where this differs from Windows:
//  - identifiers are the process's own (Windows shares them across the
//    session), and names are compared without regard to case for ASCII
//    letters only;
//  - any thread may wait for the messages of a window, not only its creator;
//  - a window is never full (Windows limits a queue to 10000 messages).
#include <korvane/platform/NotifyWindow.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Kernel.h"
#include "platform/Messages.h"

namespace {

const UINT kFirstMessageId = 0xC000;
const UINT kLastMessageId = 0xFFFF;
const DWORD kErrorInvalidWindowHandle = 1400;

struct PostedMessage {
    UINT msg;
    WPARAM wParam;
    LPARAM lParam;
};

struct NotifyQueue {
    std::deque<PostedMessage> messages;
    bool destroyed = false;
    std::condition_variable posted;
};

struct NotifyState {
    std::mutex lock;  // guards everything below and every queue
    std::map<std::wstring, UINT> names;
    UINT nextId = kFirstMessageId;
    // A waiter keeps its queue alive while the window is destroyed under it.
    std::map<HWND, std::shared_ptr<NotifyQueue>> windows;
};

NotifyState& State() {
    static NotifyState* state = new NotifyState;  // used until the process ends
    return *state;
}

std::wstring FoldCase(const wchar_t* name) {
    std::wstring folded(name);
    for (wchar_t& c : folded) {
        if (c >= L'a' && c <= L'z') c = static_cast<wchar_t>(c - L'a' + L'A');
    }
    return folded;
}

}  // namespace

UINT KvnRegisterWindowMessage(const wchar_t* name) {
    if (!name || !*name) {
        KvnSetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    NotifyState& state = State();
    try {
        std::wstring key = FoldCase(name);
        std::lock_guard<std::mutex> guard(state.lock);
        auto it = state.names.find(key);
        if (it != state.names.end()) return it->second;
        if (state.nextId > kLastMessageId) {
            KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return 0;
        }
        UINT id = state.nextId;
        state.names.emplace(key, id);
        ++state.nextId;
        return id;
    } catch (...) {
        KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
}

HWND KvnCreateNotifyWindow() {
    NotifyState& state = State();
    try {
        auto queue = std::make_shared<NotifyQueue>();
        HWND hWnd = reinterpret_cast<HWND>(queue.get());
        std::lock_guard<std::mutex> guard(state.lock);
        state.windows.emplace(hWnd, std::move(queue));
        return hWnd;
    } catch (...) {
        KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
}

void KvnDestroyNotifyWindow(HWND hWnd) {
    NotifyState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    auto it = state.windows.find(hWnd);
    if (it == state.windows.end()) return;
    it->second->destroyed = true;
    it->second->posted.notify_all();
    state.windows.erase(it);
}

BOOL KvnPostMessage(HWND hWnd, UINT msg, WPARAM wParam, LPARAM lParam) {
    NotifyState& state = State();
    std::lock_guard<std::mutex> guard(state.lock);
    auto it = state.windows.find(hWnd);
    if (it == state.windows.end()) {
        KvnSetLastError(kErrorInvalidWindowHandle);
        return FALSE;
    }
    try {
        it->second->messages.push_back(PostedMessage{msg, wParam, lParam});
    } catch (...) {
        KvnSetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    it->second->posted.notify_one();
    return TRUE;
}

BOOL KvnWaitNotifyMessage(HWND hWnd, DWORD timeoutMs, UINT* msg, WPARAM* wParam, LPARAM* lParam) {
    NotifyState& state = State();
    std::unique_lock<std::mutex> lock(state.lock);
    auto it = state.windows.find(hWnd);
    if (it == state.windows.end()) {
        KvnSetLastError(kErrorInvalidWindowHandle);
        return FALSE;
    }
    std::shared_ptr<NotifyQueue> queue = it->second;
    auto ready = [&queue] { return !queue->messages.empty() || queue->destroyed; };
    if (timeoutMs == INFINITE) {
        queue->posted.wait(lock, ready);
    } else {
        queue->posted.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
    }
    if (queue->messages.empty() || queue->destroyed) return FALSE;
    PostedMessage m = queue->messages.front();
    queue->messages.pop_front();
    if (msg) *msg = m.msg;
    if (wParam) *wParam = m.wParam;
    if (lParam) *lParam = m.lParam;
    return TRUE;
}
