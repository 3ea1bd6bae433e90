// Small helpers shared by the tests: elapsed time and a handle that closes
// itself.
#ifndef KVN_TESTS_SUPPORT_TESTUTIL_H
#define KVN_TESTS_SUPPORT_TESTUTIL_H

#include <chrono>

#include "platform/Kernel.h"

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

}  // namespace kvntest

#endif
