// A minimal Korvane service inside the benchmark's own process: it registers
// the application, accepts every connection and answers every EXECUTE at
// once with status 0 and the value 1, touching no database. Against it,
// Execute costs what the library and the two round trips cost, without the
// service's own work.
#ifndef KVN_BENCH_MINISERVICE_H
#define KVN_BENCH_MINISERVICE_H

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include <korvane/platform/KvnTypes.h>

class MiniService {
public:
    MiniService();
    ~MiniService();
    MiniService(const MiniService&) = delete;
    MiniService& operator=(const MiniService&) = delete;

    // 0 when the listener could not be opened.
    unsigned short Port() const { return m_port; }

private:
    void Accept();
    void Serve(SOCKET sock);

    SOCKET m_listener;
    unsigned short m_port;
    std::atomic<bool> m_stop{false};
    std::thread m_acceptor;
    std::mutex m_lock;  // guards m_links
    std::vector<std::thread> m_links;
};

#endif
