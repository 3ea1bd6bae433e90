// What the service and its loader need from their own process beyond the
// library's platform layer: the signals that stop them or reopen their log,
// their process id, and files that readers must never see half-written.
//
// The stop signals (SIGTERM, SIGINT) and SIGHUP are taken by a thread of
// their own with sigwait rather than by handlers, so that what they trigger
// (closing links, writing the log) runs as ordinary code.
#ifndef KVN_TOOLS_SERVICEPROCESS_H
#define KVN_TOOLS_SERVICEPROCESS_H

#include <string>

struct SignalActions {
    // Called once, for the first SIGTERM or SIGINT; name is "SIGTERM" or
    // "SIGINT". Later stop signals are ignored: the shutdown has a bound.
    void (*stop)(const char* name, void* context) = nullptr;
    // Called for every SIGHUP; may be null.
    void (*hangUp)(void* context) = nullptr;
    void* context = nullptr;
};

// Call first in main, before any thread is started: blocks SIGTERM, SIGINT
// and SIGHUP in this thread and so in every thread started later, and gives
// each its default action back (a shell starts background jobs with SIGINT
// ignored, and an ignored signal is thrown away even when blocked).
void BlockServiceSignals();

// Starts the thread that waits for the blocked signals and runs the actions.
// False when the thread cannot be started.
bool StartSignalThread(const SignalActions& actions);

long long CurrentProcessId();

// Writes text to path through a temporary file renamed over it.
bool WriteFileAtomically(const std::string& path, const std::string& text);

#endif
