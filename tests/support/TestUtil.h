// Small helpers shared by the tests: elapsed time, a handle that closes
// itself, bounded waits, a closed port and texts captured from the library's
// output hooks.
#ifndef KVN_TESTS_SUPPORT_TESTUTIL_H
#define KVN_TESTS_SUPPORT_TESTUTIL_H

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Kernel.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace kvntest {

using Clock = std::chrono::steady_clock;

// Budgets measured on the millisecond tick count may end this much earlier
// than a steady clock says: the Windows tick advances in steps of ~15.6 ms.
constexpr long long kTickSlackMs = 20;

inline long long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Closes the handle at the end of the test.
struct Handle {
    HANDLE h;
    explicit Handle(HANDLE handle) : h(handle) {}
    ~Handle() {
        if (KvnIsHandleOpen(h)) KvnCloseHandle(h);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    operator HANDLE() const { return h; }
};

// Bounded wait until condition() holds.
template <class F>
bool WaitUntil(F condition, long long timeoutMs = 5000) {
    const Clock::time_point start = Clock::now();
    while (!condition()) {
        if (MsSince(start) > timeoutMs) return false;
        KvnSleep(1);
    }
    return true;
}

// A loopback port on which nothing listens any more: connects to it are
// refused at once.
inline unsigned short ClosedPort() {
    SOCKET listening = KvnTcpListen(KvnLoopbackAddress(), 0, 1);
    const unsigned short port = KvnGetLocalPort(listening);
    KvnCloseSocket(listening);
    return port;
}

// Texts handed to the debugger output or trace file hook (Hook, with the
// object as context), in order, from any thread.
class CapturedTexts {
public:
    static void Hook(const wchar_t* text, void* context) {
        CapturedTexts* self = static_cast<CapturedTexts*>(context);
        std::lock_guard<std::mutex> guard(self->lock_);
        self->texts_.push_back(text);
    }
    std::vector<std::wstring> Get() {
        std::lock_guard<std::mutex> guard(lock_);
        return texts_;
    }
    std::vector<std::wstring> Containing(const std::wstring& part) {
        std::vector<std::wstring> found;
        for (const std::wstring& t : Get())
            if (t.find(part) != std::wstring::npos) found.push_back(t);
        return found;
    }
    int CountContaining(const std::wstring& part) { return static_cast<int>(Containing(part).size()); }
    int Count(const std::wstring& text) {
        int n = 0;
        for (const std::wstring& t : Get()) n += t == text ? 1 : 0;
        return n;
    }

private:
    std::mutex lock_;
    std::vector<std::wstring> texts_;
};

}  // namespace kvntest

#endif
