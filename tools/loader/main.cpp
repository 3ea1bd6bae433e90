// korvane-loader: the service loader. Listens on a TCP port; a client that
// cannot reach the service connects and sends the two bytes "GO", and the
// loader starts the service (its path and arguments come from the loader's
// command line) unless the service it started last is still running. When
// the loader stops (SIGTERM, SIGINT), the service it started stops too.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <korvane/SockInit.h>

#include "ServiceProcess.h"
#include "net/Transport.h"
#include "platform/Process.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace {

// How long a client has to send its two bytes.
constexpr DWORD kRequestWaitMs = 2000;
// How long the service has to end once asked: longer than korvaned's own
// default bound for the requests under way.
constexpr DWORD kServiceStopWaitMs = 30000;

SOCKET g_listening = INVALID_SOCKET;
std::atomic<bool> g_stopping{false};

void OnStopSignal(const char* name, void*);

__attribute__((format(printf, 1, 2))) void Log(const char* format, ...) {
    std::fprintf(stderr, "korvane-loader: ");
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void Help(const char* program) {
    std::printf(
        "Usage: %s [options] -- SERVICE [SERVICE-ARGUMENTS...]\n"
        "Starts the Korvane service SERVICE when a client sends \"GO\".\n"
        "\n"
        "  -p, --port N          TCP port to listen on (default 5150; 0 lets the system choose)\n"
        "      --listen ADDR     local IPv4 address to listen on (default 127.0.0.1)\n"
        "      --port-file PATH  write the port listened on to PATH once listening\n"
        "      --log FILE        the service's standard error goes to FILE (appended)\n"
        "      --version         the version\n"
        "  -h, --help            this text\n"
        "SIGTERM and SIGINT stop the loader and the service it started.\n",
        program);
}

void OnStopSignal(const char* name, void*) {
    Log("%s received: stopping", name);
    g_stopping.store(true);
    KvnShutdown(g_listening);  // wakes the accept
}

}  // namespace

int main(int argc, char** argv) {
    BlockServiceSignals();  // before any thread
    int port = 5150;
    std::string listenAddress = "127.0.0.1", portFile, logFile;
    std::vector<const char*> service;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "korvane-loader: option %s needs a value\n", a.c_str());
                std::exit(2);
            }
            out = argv[++i];
        };
        if (a == "-h" || a == "--help") {
            Help(argv[0]);
            return 0;
        } else if (a == "--version") {
            std::puts("korvane-loader " KVN_VERSION);
            return 0;
        } else if (a == "-p" || a == "--port") {
            std::string v;
            value(v);
            char* end = nullptr;
            const long p = std::strtol(v.c_str(), &end, 10);
            if (v.empty() || *end || p < 0 || p > 65535) {
                std::fprintf(stderr, "korvane-loader: bad port '%s'\n", v.c_str());
                return 2;
            }
            port = static_cast<int>(p);
        } else if (a == "--listen") {
            value(listenAddress);
        } else if (a == "--port-file") {
            value(portFile);
        } else if (a == "--log") {
            value(logFile);
        } else if (a == "--") {
            for (++i; i < argc; ++i) service.push_back(argv[i]);
        } else {
            std::fprintf(stderr, "korvane-loader: unknown option '%s' (see --help)\n", a.c_str());
            return 2;
        }
    }
    if (service.empty()) {
        std::fprintf(stderr, "korvane-loader: no service to start (see --help)\n");
        return 2;
    }
    service.push_back(nullptr);

    if (SockInitWinSock() != 1) {
        Log("the socket layer cannot start");
        return 1;
    }
    g_listening = KvnTcpListen(KvnInetAddr(listenAddress.c_str()), static_cast<unsigned short>(port), 16);
    if (g_listening == INVALID_SOCKET) {
        Log("cannot listen on %s:%d: %s", listenAddress.c_str(), port, KvnSocketErrorText(KvnSocketError()).c_str());
        return 1;
    }
    const unsigned short actual = KvnGetLocalPort(g_listening);
    Log("listening on %s:%u", listenAddress.c_str(), actual);
    if (!portFile.empty() && !WriteFileAtomically(portFile, std::to_string(actual) + "\n")) {
        Log("cannot write the port file %s", portFile.c_str());
    }
    SignalActions actions;
    actions.stop = &OnStopSignal;
    if (!StartSignalThread(actions)) Log("cannot watch the stop signals");

    KvnProcess child = 0;
    while (!g_stopping.load()) {
        SOCKET s = KvnAccept(g_listening, INFINITE);
        if (s == INVALID_SOCKET) {
            if (!g_stopping.load()) KvnSleep(100);  // out of descriptors or a reset connection: do not spin
            continue;
        }
        char request[2] = {};
        const int got = SockReceive(s, request, 2, kRequestWaitMs);
        KvnCloseSocket(s);
        if (got != 2 || request[0] != 'G' || request[1] != 'O') continue;

        int exitCode = 0;
        if (child != 0 && KvnWaitProcess(child, 0, &exitCode) == 1) {
            Log("the service ended with code %d", exitCode);
            child = 0;
        }
        if (child != 0) {
            Log("GO received: the service is running already");
            continue;
        }
        // Tied to this thread's life too: a loader that dies without its
        // orderly stop still takes the service with it.
        child = KvnStartProcess(service[0], service.data(), logFile.empty() ? nullptr : logFile.c_str(), TRUE);
        if (child == 0) Log("GO received: cannot start %s", service[0]);
        else Log("GO received: started %s (process %lld)", service[0], child);
    }
    // The listening socket stays open until the process ends: the signal
    // thread may still be shutting it down.
    int exitCode = 0;
    if (child != 0 && KvnWaitProcess(child, 0, &exitCode) == 0) {
        Log("stopping the service (process %lld)", child);
        KvnTerminateProcess(child);
        if (KvnWaitProcess(child, kServiceStopWaitMs, &exitCode) == 1) Log("the service ended with code %d", exitCode);
        else Log("the service did not end within %u ms", static_cast<unsigned>(kServiceStopWaitMs));
    }
    Log("stopped");
    return 0;
}
