// What one Execute costs, beside the anchor measured in the same run: the raw
// loopback floor of the same exchange (the request, its acknowledgement, the
// answer and the acknowledgement of the answer, on blocking sockets between
// two threads), then Execute through the library against a minimal service
// in this process (the library's own cost) and against korvaned on an
// in-memory SQLite database (what an application sees). Then the throughput
// of 64 connections driven by 4 threads against one connection on one thread.
//
//   ExecuteBench [--rounds N] [--requests N] [--seconds S] [--korvaned PATH]
//                [--port P] [--only floor|mini|korvaned|load] [--pattern 1x1|64x4]
//
// --port uses a korvaned already listening on P instead of starting one, so
// that the system calls of this process alone can be counted (strace -f -c);
// the load then runs against it alone. --pattern runs one side of the load
// only, to count one pattern's calls.
//
// Each round measures every part once; the best round (lowest p50, highest
// throughput) of each part is kept, and the ratios are those of that best
// round's figures, all measured in this one run. On a shared machine keep the vCPUs awake (two
// nice -n 19 busy loops) and look at the ratios.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <korvane/CKorvaneClient.h>
#include <korvane/CMsgSocket.h>
#include <korvane/SockInit.h>

#include "MiniService.h"
#include "platform/Process.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace {

using Clock = std::chrono::steady_clock;

const wchar_t kSql[] = L"SELECT 1";

struct Options {
    int rounds = 5;
    int requests = 20000;
    double seconds = 3.0;
    std::string korvaned;
    unsigned short port = 0;
    std::string only;
    std::string pattern;
};

struct Latency {
    double p50 = 0, p90 = 0, p99 = 0;  // microseconds
    bool ok = false;
};

Latency Summarise(std::vector<double>& us) {
    Latency l;
    if (us.empty()) return l;
    std::sort(us.begin(), us.end());
    auto at = [&](double q) { return us[static_cast<size_t>(q * (us.size() - 1))]; };
    l.p50 = at(0.50);
    l.p90 = at(0.90);
    l.p99 = at(0.99);
    l.ok = true;
    return l;
}

double MicrosSince(Clock::time_point t) {
    return std::chrono::duration<double, std::micro>(Clock::now() - t).count();
}

// ---- The floor ---------------------------------------------------------------------

bool SendAll(SOCKET s, const BYTE* data, int n) {
    for (int done = 0; done < n;) {
        const int r = KvnSend(s, reinterpret_cast<const char*>(data) + done, n - done);
        if (r <= 0) return false;
        done += r;
    }
    return true;
}

bool RecvAll(SOCKET s, BYTE* data, int n) {
    for (int done = 0; done < n;) {
        const int r = KvnRecv(s, reinterpret_cast<char*>(data) + done, n - done);
        if (r <= 0) return false;
        done += r;
    }
    return true;
}

// The bytes of the exchange, encoded by the library: the request, an
// acknowledgement, the answer.
struct Exchange {
    std::vector<BYTE> request, ack, answer;
    Exchange() {
        CMsgSocket req;
        req.SetEntete(7, KVN_EXECUTE, 1);
        req.AddParametre(SQL_C_WCHAR, static_cast<unsigned>(std::wcslen(kSql)), kSql);
        Take(req, request);
        CMsgSocket a;
        a.SetEntete(7, KVN_ACK, 1);
        Take(a, ack);
        CMsgSocket ans;
        ans.SetEntete(7, KVN_EXECUTE, 1);
        int zero = 0, one = 1;
        ans.AddParametre(SQL_C_LONG, 4, &zero);
        ans.AddParametre(SQL_C_LONG, 4, &one);
        Take(ans, answer);
    }
    static void Take(CMsgSocket& m, std::vector<BYTE>& out) {
        m.CreateMessage(1);
        int n = 0;
        BYTE* bytes = m.GetMessage(&n);
        out.assign(bytes, bytes + n);
    }
};

Latency Floor(int requests) {
    const Exchange x;
    SOCKET listening = KvnTcpListen(KvnLoopbackAddress(), 0, 1);
    SOCKET client = KvnTcpSocket();
    if (KvnConnect(client, KvnLoopbackAddress(), KvnGetLocalPort(listening)) != 0) return Latency();
    SOCKET server = KvnAccept(listening, 5000);
    KvnCloseSocket(listening);
    KvnSetSocketOption(client, KVN_TCP_NODELAY, 1);
    KvnSetSocketOption(server, KVN_TCP_NODELAY, 1);

    std::thread service([&] {
        std::vector<BYTE> request(x.request.size()), ack(x.ack.size());
        for (int i = 0; i < requests; ++i) {
            if (!RecvAll(server, request.data(), static_cast<int>(request.size())) ||
                !SendAll(server, x.ack.data(), static_cast<int>(x.ack.size())) ||
                !SendAll(server, x.answer.data(), static_cast<int>(x.answer.size())) ||
                !RecvAll(server, ack.data(), static_cast<int>(ack.size())))
                break;
        }
    });
    std::vector<double> us;
    us.reserve(static_cast<size_t>(requests));
    std::vector<BYTE> ack(x.ack.size()), answer(x.answer.size());
    for (int i = 0; i < requests; ++i) {
        const Clock::time_point t = Clock::now();
        if (!SendAll(client, x.request.data(), static_cast<int>(x.request.size())) ||
            !RecvAll(client, ack.data(), static_cast<int>(ack.size())) ||
            !RecvAll(client, answer.data(), static_cast<int>(answer.size())) ||
            !SendAll(client, x.ack.data(), static_cast<int>(x.ack.size())))
            break;
        us.push_back(MicrosSince(t));
    }
    service.join();
    KvnCloseSocket(client);
    KvnCloseSocket(server);
    return Summarise(us);
}

// ---- Execute through the library ---------------------------------------------------

struct Session {
    CKorvaneClient client;
    std::vector<int> handles;
    bool Open(unsigned short port, int connexions) {
        int dbType = 0;
        if (client.Init(L"127.0.0.1", port, 0, L"ExecuteBench", dbType, 0, nullptr, nullptr) != 0)
            return false;
        for (int i = 0; i < connexions; ++i) {
            const int h = client.GetConnexion();
            if (h <= 0) return false;
            handles.push_back(h);
        }
        return true;
    }
};

Latency Execute(unsigned short port, int requests) {
    Session s;
    if (!s.Open(port, 1)) return Latency();
    int resultat = 0;
    for (int i = 0; i < 200; ++i) s.client.Execute(s.handles[0], kSql, resultat);  // warm-up
    std::vector<double> us;
    us.reserve(static_cast<size_t>(requests));
    for (int i = 0; i < requests; ++i) {
        const Clock::time_point t = Clock::now();
        if (s.client.Execute(s.handles[0], kSql, resultat) != KVN_NO_ERROR) break;
        us.push_back(MicrosSince(t));
    }
    s.client.Free();
    return Summarise(us);
}

// Requests per second of `threads` threads, each driving its share of
// `connexions` connections in turn, for `seconds`.
double Throughput(unsigned short port, int connexions, int threads, double seconds) {
    Session s;
    if (!s.Open(port, connexions)) return 0;
    std::atomic<bool> stop{false};
    std::atomic<long long> done{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            int resultat = 0;
            long long n = 0;
            for (int i = t; !stop; i += threads) {
                if (s.client.Execute(s.handles[static_cast<size_t>(i % connexions)], kSql, resultat) !=
                    KVN_NO_ERROR)
                    ++failed;
                else
                    ++n;
            }
            done += n;
        });
    }
    const Clock::time_point start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (std::thread& w : workers) w.join();
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    s.client.Free();
    if (failed) std::printf("  (%d requests failed)\n", failed.load());
    return static_cast<double>(done) / elapsed;
}

// ---- korvaned ------------------------------------------------------------------------

struct Korvaned {
    KvnProcess process = 0;
    unsigned short port = 0;
    std::string dir;
    explicit Korvaned(const std::string& path) {
        if (path.empty()) return;
        char pattern[] = "/tmp/kvn-bench-XXXXXX";
        if (!mkdtemp(pattern)) return;
        dir = pattern;
        const std::string portFile = dir + "/port";
        const char* argv[] = {path.c_str(), "--port", "0", "--port-file", portFile.c_str(),
                              "--database", ":memory:", "--hb-mode", "unicast", "--hb-port", "9",
                              "--log-level", "0", nullptr};
        process = KvnStartProcess(path.c_str(), argv, (dir + "/korvaned.log").c_str(), TRUE);
        for (int i = 0; process != 0 && i < 500 && port == 0; ++i) {
            KvnSleep(10);
            if (FILE* f = std::fopen(portFile.c_str(), "r")) {
                unsigned p = 0;
                if (std::fscanf(f, "%u", &p) == 1 && p > 0 && p < 65536) port = static_cast<unsigned short>(p);
                std::fclose(f);
            }
        }
    }
    ~Korvaned() {
        if (process != 0) {
            KvnTerminateProcess(process);
            KvnWaitProcess(process, 10000, nullptr);
        }
        if (!dir.empty()) {
            std::remove((dir + "/port").c_str());
            std::remove((dir + "/korvaned.log").c_str());
            std::remove(dir.c_str());
        }
    }
};

void Print(const char* name, const Latency& l, double floor) {
    if (!l.ok) {
        std::printf("  %-26s failed\n", name);
        return;
    }
    std::printf("  %-26s p50 %7.1f us  p90 %7.1f us  p99 %7.1f us", name, l.p50, l.p90, l.p99);
    if (floor > 0) std::printf("   p50 = %.2f x floor", l.p50 / floor);
    std::printf("\n");
}

bool Wants(const Options& o, const char* part) { return o.only.empty() || o.only == part; }

}  // namespace

int main(int argc, char** argv) {
    Options o;
#ifdef KVN_KORVANED_PATH
    o.korvaned = KVN_KORVANED_PATH;
#endif
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i], value = argv[i + 1];
        if (name == "--rounds") o.rounds = std::max(1, std::atoi(value.c_str()));
        else if (name == "--requests") o.requests = std::max(100, std::atoi(value.c_str()));
        else if (name == "--seconds") o.seconds = std::max(0.5, std::atof(value.c_str()));
        else if (name == "--korvaned") o.korvaned = value;
        else if (name == "--port") o.port = static_cast<unsigned short>(std::atoi(value.c_str()));
        else if (name == "--only") o.only = value;
        else if (name == "--pattern") o.pattern = value;
        else {
            std::fprintf(stderr, "unknown option %s\n", name.c_str());
            return 2;
        }
    }
    SockInitWinSock();
    MiniService mini;
    Korvaned korvaned(o.port == 0 && (Wants(o, "korvaned") || Wants(o, "load")) ? o.korvaned
                                                                              : std::string());
    if (o.port != 0) korvaned.port = o.port;
    if (korvaned.port == 0 && (o.only == "korvaned" || o.only == "load")) {
        std::fprintf(stderr, "korvaned did not start (give its path with --korvaned)\n");
        return 1;
    }

    Latency best[3];
    const char* names[3] = {"floor (raw loopback)", "Execute, minimal service", "Execute, korvaned+SQLite"};
    if (o.only != "load") {
        std::printf("%d requests per part and round\n", o.requests);
        for (int round = 1; round <= o.rounds; ++round) {
            Latency l[3];
            if (Wants(o, "floor")) l[0] = Floor(o.requests);
            if (Wants(o, "mini")) l[1] = Execute(mini.Port(), o.requests);
            if (Wants(o, "korvaned") && korvaned.port != 0) l[2] = Execute(korvaned.port, o.requests);
            std::printf("round %d\n", round);
            for (int p = 0; p < 3; ++p) {
                if (!Wants(o, p == 0 ? "floor" : p == 1 ? "mini" : "korvaned")) continue;
                if (p == 2 && korvaned.port == 0) continue;
                Print(names[p], l[p], l[0].ok ? l[0].p50 : 0);
                if (l[p].ok && (!best[p].ok || l[p].p50 < best[p].p50)) best[p] = l[p];
            }
        }
        std::printf("best of %d rounds\n", o.rounds);
        for (int p = 0; p < 3; ++p)
            if (best[p].ok) Print(names[p], best[p], best[0].ok ? best[0].p50 : 0);
    }

    if (Wants(o, "load")) {
        struct Target {
            const char* name;
            unsigned short port;
        } targets[] = {{"minimal service", mini.Port()}, {"korvaned+SQLite", korvaned.port}};
        // Rounds alternate the two patterns, so that a change in what else
        // the machine runs weighs on both; the best round of each is kept.
        for (const Target& t : targets) {
            if (t.port == 0 || (o.port != 0 && t.port != o.port)) continue;
            double bestOne = 0, bestMany = 0;
            for (int round = 1; round <= o.rounds; ++round) {
                const double one = o.pattern != "64x4" ? Throughput(t.port, 1, 1, o.seconds) : 0;
                const double many = o.pattern != "1x1" ? Throughput(t.port, 64, 4, o.seconds) : 0;
                std::printf("load, %s, round %d: 1x1 %.0f requests/s, 64x4 %.0f requests/s\n", t.name,
                            round, one, many);
                bestOne = std::max(bestOne, one);
                bestMany = std::max(bestMany, many);
            }
            std::printf("load, %s, best of %d rounds: 1x1 %.0f requests/s, 64x4 %.0f requests/s "
                        "(%.2f x 1x1)\n",
                        t.name, o.rounds, bestOne, bestMany, bestOne > 0 ? bestMany / bestOne : 0.0);
        }
    }
    SockCloseWinSock();
    return 0;
}
