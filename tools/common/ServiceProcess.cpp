// Signals, process id and atomic file writes for the service and its loader.
#include "ServiceProcess.h"

#include <csignal>
#include <cstdio>

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include "platform/Threads.h"

namespace {

SignalActions g_actions;

sigset_t ServiceSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    return set;
}

void WaitForSignals(void*) {
    const sigset_t set = ServiceSignals();
    bool stopping = false;
    for (;;) {
        int signal = 0;
        if (sigwait(&set, &signal) != 0) continue;
        if (signal == SIGHUP) {
            if (g_actions.hangUp) g_actions.hangUp(g_actions.context);
        } else if (!stopping) {
            stopping = true;
            g_actions.stop(signal == SIGTERM ? "SIGTERM" : "SIGINT", g_actions.context);
        }
    }
}

}  // namespace

void BlockServiceSignals() {
    for (int signal : {SIGTERM, SIGINT, SIGHUP}) std::signal(signal, SIG_DFL);
    const sigset_t set = ServiceSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

bool StartSignalThread(const SignalActions& actions) {
    g_actions = actions;
    return KvnBeginThread(&WaitForSignals, nullptr) != FALSE;
}

long long CurrentProcessId() { return static_cast<long long>(getpid()); }

bool WriteFileAtomically(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".tmp";
    FILE* f = std::fopen(temporary.c_str(), "w");
    if (!f) return false;
    const bool written = std::fputs(text.c_str(), f) >= 0;
    if (std::fclose(f) != 0 || !written) {
        std::remove(temporary.c_str());
        return false;
    }
    return std::rename(temporary.c_str(), path.c_str()) == 0;
}
