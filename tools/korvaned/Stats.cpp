// The service's statistics and their page.
#include "Stats.h"

#include <algorithm>
#include <cstdio>

#include <korvane/CMsgSocket.h>

#include "ServiceLog.h"
#include "net/Transport.h"
#include "platform/Kernel.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace {

// How long a reader of the page has to send its request line; the page is
// sent anyway afterwards, so that a bare TCP connection also gets it.
constexpr DWORD kRequestWaitMs = 1000;
constexpr DWORD kSendWaitMs = 2000;

std::string Line(const char* name, long long value) { return std::string(name) + " " + std::to_string(value) + "\n"; }

}  // namespace

ServiceStats::ServiceStats() : failed_(0), refused_(0), next_(0) {
    for (auto& r : requests_) r.store(0);
    latencies_.reserve(kWindow);
}

void ServiceStats::Request(int fonction, double milliseconds, bool failed) {
    requests_[fonction & 255].fetch_add(1);
    if (failed) failed_.fetch_add(1);
    std::lock_guard<std::mutex> guard(latencyLock_);
    if (latencies_.size() < kWindow) latencies_.push_back(static_cast<float>(milliseconds));
    else latencies_[next_] = static_cast<float>(milliseconds);
    next_ = (next_ + 1) % kWindow;
}

std::string ServiceStats::Report() {
    std::string text;
    long long total = 0;
    std::string kinds;
    for (int code = 0; code < 256; ++code) {
        const long long n = requests_[code].load();
        if (n == 0) continue;
        total += n;
        wchar_t name[32];
        GetNomFonction(static_cast<signed char>(code), name, 0);
        std::string narrow;  // the names are ASCII
        for (const wchar_t* c = name; *c; ++c) narrow += static_cast<char>(*c);
        kinds += "requests." + narrow + " " + std::to_string(n) + "\n";
    }
    text += Line("requests", total);
    text += kinds;
    text += Line("request_errors", failed_.load());
    text += Line("links_refused", refused_.load());

    std::vector<float> sorted;
    {
        std::lock_guard<std::mutex> guard(latencyLock_);
        sorted = latencies_;
    }
    std::sort(sorted.begin(), sorted.end());
    text += Line("latency_window", static_cast<long long>(sorted.size()));
    // Nearest rank; 100 is the largest.
    for (const int p : {50, 90, 99, 100}) {
        const std::size_t rank = (sorted.size() * static_cast<std::size_t>(p) + 99) / 100;
        const double value = sorted.empty() ? 0.0 : sorted[std::max<std::size_t>(rank, 1) - 1];
        char line[64];
        if (p == 100) std::snprintf(line, sizeof line, "latency_ms_max %.3f\n", value);
        else std::snprintf(line, sizeof line, "latency_ms_p%d %.3f\n", p, value);
        text += line;
    }
    return text;
}

StatsListener::StatsListener()
    : listening_(INVALID_SOCKET), thread_(nullptr), stopping_(false), page_(nullptr), context_(nullptr) {}

StatsListener::~StatsListener() { Stop(); }

bool StatsListener::Start(int port, std::string (*page)(void*), void* context) {
    page_ = page;
    context_ = context;
    // Loopback only, whatever the service listens on: the page tells who is
    // connected and is meant for the machine's own operators.
    listening_ = KvnTcpListen(KvnLoopbackAddress(), static_cast<unsigned short>(port), 8);
    if (listening_ == INVALID_SOCKET) {
        ServiceLog(0, "statistics: cannot listen on 127.0.0.1:%d: %s", port,
                   KvnSocketErrorText(KvnSocketError()).c_str());
        return false;
    }
    thread_ = KvnBeginThreadEx(&StatsListener::Run, this);
    if (!thread_) {
        ServiceLog(0, "statistics: cannot start its thread");
        KvnCloseSocket(listening_);
        listening_ = INVALID_SOCKET;
        return false;
    }
    ServiceLog(1, "statistics on 127.0.0.1:%u", KvnGetLocalPort(listening_));
    return true;
}

void StatsListener::Stop() {
    if (!thread_) return;
    stopping_.store(true);
    KvnShutdown(listening_);  // wakes the accept
    KvnWaitForSingleObject(thread_, INFINITE);
    KvnCloseHandle(thread_);
    thread_ = nullptr;
    KvnCloseSocket(listening_);
    listening_ = INVALID_SOCKET;
}

unsigned StatsListener::Run(void* p) {
    StatsListener* self = static_cast<StatsListener*>(p);
    while (!self->stopping_.load()) {
        SOCKET s = KvnAccept(self->listening_, INFINITE);
        if (s == INVALID_SOCKET) {
            if (!self->stopping_.load()) KvnSleep(100);  // out of descriptors: do not spin
            continue;
        }
        // The request itself does not matter: any path gets the page.
        if (KvnWaitReadable(s, kRequestWaitMs) == 1) {
            char request[1024];
            KvnRecv(s, request, sizeof request);
        }
        const std::string body = self->page_(self->context_);
        const std::string answer = "HTTP/1.0 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
                                   std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
        SockSend(s, answer.data(), static_cast<int>(answer.size()), kSendWaitMs);
        KvnCloseSocket(s);
    }
    return 0;
}
