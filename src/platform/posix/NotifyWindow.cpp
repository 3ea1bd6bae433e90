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
//  - any thread may wait for the messages of a window, not only its creator,
//    and a null window reads those of every window, not only the thread's;
//  - a window is never full (Windows limits a queue to 10000 messages);
//  - a message's time and point are 0.
#include <korvane/platform/NotifyWindow.h>
#include <korvane/platform/KvnWait.h>

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
};

struct NotifyState {
    std::mutex lock;  // guards everything below and every queue
    // Told of every post and every destruction: a reader may wait on any
    // window.
    std::condition_variable changed;
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
    state.windows.erase(it);
    state.changed.notify_all();
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
    state.changed.notify_all();
    return TRUE;
}

namespace {

bool InRange(UINT msg, UINT filterMin, UINT filterMax) {
    return (filterMin == 0 && filterMax == 0) || (msg >= filterMin && msg <= filterMax);
}

enum class Taken { Message, None, NoWindow };

// Looks for the oldest message of hWnd (null: of any window) in the range,
// waiting up to timeoutMs for one; takes it out of its queue when remove.
Taken Take(HWND hWnd, UINT filterMin, UINT filterMax, bool remove, DWORD timeoutMs,
           kvn::MSG* out) {
    NotifyState& state = State();
    std::unique_lock<std::mutex> lock(state.lock);
    std::shared_ptr<NotifyQueue> one;
    if (hWnd != nullptr) {
        auto it = state.windows.find(hWnd);
        if (it == state.windows.end()) {
            KvnSetLastError(kErrorInvalidWindowHandle);
            return Taken::NoWindow;
        }
        one = it->second;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (one && one->destroyed) return Taken::NoWindow;
        for (auto& w : state.windows) {
            if (one && w.second != one) continue;
            std::deque<PostedMessage>& q = w.second->messages;
            for (auto m = q.begin(); m != q.end(); ++m) {
                if (!InRange(m->msg, filterMin, filterMax)) continue;
                if (out) *out = kvn::MSG{w.first, m->msg, m->wParam, m->lParam, 0, {0, 0}};
                if (remove) q.erase(m);
                return Taken::Message;
            }
        }
        if (timeoutMs == 0) return Taken::None;
        if (timeoutMs == INFINITE) {
            state.changed.wait(lock);
        } else if (state.changed.wait_until(lock, deadline) == std::cv_status::timeout) {
            timeoutMs = 0;  // one last look
        }
    }
}

}  // namespace

BOOL KvnWaitNotifyMessage(HWND hWnd, DWORD timeoutMs, UINT* msg, WPARAM* wParam, LPARAM* lParam) {
    kvn::MSG m;
    if (hWnd == nullptr || Take(hWnd, 0, 0, true, timeoutMs, &m) != Taken::Message) return FALSE;
    if (msg) *msg = m.message;
    if (wParam) *wParam = m.wParam;
    if (lParam) *lParam = m.lParam;
    return TRUE;
}

kvn::Bool kvn::PeekMessageW(kvn::MSG* msg, kvn::HWND hWnd, kvn::UINT filterMin, kvn::UINT filterMax,
                            kvn::UINT removeMsg) {
    return Take(hWnd, filterMin, filterMax, (removeMsg & kPmRemove) != 0, 0, msg) == Taken::Message
               ? TRUE
               : FALSE;
}

kvn::Bool kvn::GetMessageW(kvn::MSG* msg, kvn::HWND hWnd, kvn::UINT filterMin, kvn::UINT filterMax) {
    return Take(hWnd, filterMin, filterMax, true, INFINITE, msg) == Taken::Message ? TRUE : -1;
}

kvn::UINT kvn::RegisterWindowMessageW(const wchar_t* name) { return KvnRegisterWindowMessage(name); }
