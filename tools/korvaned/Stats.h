// What the service has done since it started, for operators: requests by
// kind, failed requests, refused links, and the latency of recent requests;
// and the loopback listener that answers the statistics page.
#ifndef KORVANED_STATS_H
#define KORVANED_STATS_H

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include <korvane/platform/KvnTypes.h>

class ServiceStats {
public:
    ServiceStats();

    // One database request answered: its function code, how long it took
    // from its receipt to its answer, and whether the answer was an error.
    void Request(int fonction, double milliseconds, bool failed);
    void LinkRefused() { refused_.fetch_add(1); }

    // The counters as "name value" lines.
    std::string Report();

private:
    // The latencies of the last kWindow requests: the percentiles describe
    // the service as it is now, not as it was at start.
    static constexpr std::size_t kWindow = 4096;

    std::atomic<long long> requests_[256];  // by function code
    std::atomic<long long> failed_;
    std::atomic<long long> refused_;
    std::mutex latencyLock_;  // guards the two members below
    std::vector<float> latencies_;
    std::size_t next_;
};

// Answers every connection on 127.0.0.1:port with the page that page()
// builds, as a plain-text HTTP answer, one connection at a time.
class StatsListener {
public:
    StatsListener();
    ~StatsListener();
    StatsListener(const StatsListener&) = delete;
    StatsListener& operator=(const StatsListener&) = delete;

    // False (logged) when the port cannot be listened on.
    bool Start(int port, std::string (*page)(void*), void* context);
    void Stop();

private:
    static unsigned Run(void* self);

    SOCKET listening_;
    HANDLE thread_;
    std::atomic<bool> stopping_;
    std::string (*page_)(void*);
    void* context_;
};

#endif
