// The debugger output on POSIX. There is no debugger channel, so lines go to
// the standard error stream, unchanged and in UTF-8, once switched on with
// KvnEnableDebugOutput (off by default: a library must not write on its
// host's stderr unasked). The test hook receives every line either way.
//
// One lock serialises the lines, so that lines written by several threads at
// once are neither interleaved nor lost, and so that removing the hook waits
// for calls into it in progress. It is recursive because a hook may itself
// write to the debugger output.
#include "platform/DebugOutput.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

#include "platform/posix/PosixInternal.h"

namespace {

struct DebugOutputState {
    std::recursive_mutex lock;
    KvnDebugOutputHook hook = nullptr;
    void* context = nullptr;
};

DebugOutputState& State() {
    static DebugOutputState* state = new DebugOutputState;  // used until the process ends
    return *state;
}

std::atomic<bool> g_enabled{false};

}  // namespace

void KvnDebugOutput(const wchar_t* text) {
    if (!text) return;
    DebugOutputState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    if (state.hook) state.hook(text, state.context);
    if (!g_enabled.load()) return;
    std::string utf8;
    if (kvn_posix::WideToUtf8(text, utf8) && !utf8.empty()) {
        std::fwrite(utf8.data(), 1, utf8.size(), stderr);
        std::fflush(stderr);
    }
}

void KvnEnableDebugOutput(BOOL on) { g_enabled.store(on != FALSE); }

void KvnSetDebugOutputHook(KvnDebugOutputHook hook, void* context) {
    DebugOutputState& state = State();
    std::lock_guard<std::recursive_mutex> guard(state.lock);
    state.hook = hook;
    state.context = context;
}
