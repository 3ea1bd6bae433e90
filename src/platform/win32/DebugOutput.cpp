// The debugger output on Windows: OutputDebugStringW, which costs next to
// nothing when no debugger (or DebugView) listens. That is why
// KvnEnableDebugOutput has no effect here: the lines always go to the
// debugger, as the library has always written them; the switch exists for
// the platforms where the stand-in is the host's stderr.
#include "platform/DebugOutput.h"

namespace {

// The test hook and its context, changed together. A critical section (and
// not a reader lock) because it is recursive: a hook may itself write a line.
// The hook is called under the lock, so once KvnSetDebugOutputHook(nullptr)
// has returned the old hook is never called again. The lock lives as long as
// the process (never deleted): threads may still write while statics go away.
struct HookSlot {
    CRITICAL_SECTION lock;
    KvnDebugOutputHook hook = nullptr;
    void* context = nullptr;
    HookSlot() { InitializeCriticalSection(&lock); }
};

HookSlot& Slot() {
    static HookSlot slot;
    return slot;
}

}  // namespace

void KvnDebugOutput(const wchar_t* text) {
    if (!text) return;
    OutputDebugStringW(text);
    HookSlot& slot = Slot();
    EnterCriticalSection(&slot.lock);
    if (slot.hook) slot.hook(text, slot.context);
    LeaveCriticalSection(&slot.lock);
}

void KvnEnableDebugOutput(BOOL /*on: see the top of the file*/) {}

void KvnSetDebugOutputHook(KvnDebugOutputHook hook, void* context) {
    HookSlot& slot = Slot();
    EnterCriticalSection(&slot.lock);
    slot.hook = hook;
    slot.context = context;
    LeaveCriticalSection(&slot.lock);
}
