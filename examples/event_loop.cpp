// An application with an event loop of its own keeps working through the
// losses of its link: requests run one after another, and between two of
// them the loop looks at the two events that tell a loss and a return. On
// Linux it watches their descriptors with poll, as any loop that watches
// descriptors would (epoll, libuv, Qt, asio), or, given --waits, waits on the
// events themselves as it always does on Windows. Either way an event is
// taken with the wait functions, and the messages posted to the window are
// read with PeekMessageW. The same source builds on both.
//
//   event_loop [--waits] [HOST [PORT [RECOVERIES]]]    (default 127.0.0.1 5151 1)
//
// It says "link up" once a request went through, "link lost" and "link back"
// as they come, and "working again" for the first request that went through
// after a return. After RECOVERIES returns it watches a little longer, then
// closes the session. It also holds the library to its word, and ends with 1
// as soon as it is broken: a loss and a return alternate, each makes its own
// event set once and the other not at the same time, each loss posts one
// "KVN_MSG_PERTE_COMM" and each return one "KVN_MSG_COMM_OK", and closing
// the session while every link is up tells a loss in both ways.
#include <korvane/KorvaneClient.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#if !KVN_SYSTEM_WAITS
#include <poll.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

// The two events, in the order of their importance: a loss first.
enum { kLost = 0, kBack = 1, kNothing = -1, kWrong = -2 };
const char* const kChangeName[] = {"link lost", "link back"};

struct Events {
    kvn::HANDLE handles[2];
    bool watchFds;  // watch the descriptors rather than wait on the events
};

// Waits up to ms for the loss or the return and takes what came; kWrong
// (said on stderr) when what was seen cannot be.
int NextChange(const Events& events, int ms) {
#if !KVN_SYSTEM_WAITS
    if (events.watchFds) {
        pollfd fds[2] = {{KvnGetEventFd(events.handles[kLost]), POLLIN, 0},
                         {KvnGetEventFd(events.handles[kBack]), POLLIN, 0}};
        if (poll(fds, 2, ms) <= 0) return kNothing;
        const bool lost = (fds[kLost].revents & POLLIN) != 0;
        const bool back = (fds[kBack].revents & POLLIN) != 0;
        if (lost && back) {
            std::fprintf(stderr, "a loss and a return are set at the same time\n");
            return kWrong;
        }
        // Readable while set: the wait with no time takes the event, which
        // makes its descriptor quiet again.
        const int i = lost ? kLost : kBack;
        if (kvn::WaitForSingleObject(events.handles[i], 0) != kvn::kWaitObject0) {
            std::fprintf(stderr, "the descriptor of \"%s\" is readable, its event is not set\n",
                         kChangeName[i]);
            return kWrong;
        }
        return i;
    }
#endif
    const kvn::DWORD r = kvn::WaitForMultipleObjects(2, events.handles, 0, static_cast<kvn::DWORD>(ms));
    if (r == kvn::kWaitTimeout) return kNothing;
    if (r == kvn::kWaitObject0 + kLost || r == kvn::kWaitObject0 + kBack) {
        return static_cast<int>(r - kvn::kWaitObject0);
    }
    std::fprintf(stderr, "the wait failed (%lu)\n", static_cast<unsigned long>(r));
    return kWrong;
}

// The messages posted to the window: their numbers so far.
struct Messages {
    kvn::HWND window;
    kvn::UINT lostId;
    kvn::UINT backId;
    int lost = 0;
    int back = 0;

    void Read() {
        kvn::MSG m;
        while (kvn::PeekMessageW(&m, window, 0, 0, kvn::kPmRemove)) {
            if (m.message == lostId) ++lost;
            if (m.message == backId) ++back;
        }
    }
    bool Are(int wantLost, int wantBack) const {
        if (lost == wantLost && back == wantBack) return true;
        std::fprintf(stderr, "%d \"KVN_MSG_PERTE_COMM\" and %d \"KVN_MSG_COMM_OK\" posted, not %d and %d\n",
                     lost, back, wantLost, wantBack);
        return false;
    }
};

// Requests and changes until `recoveries` returns, each followed by a request
// that went through, and a quiet moment after the last one. Whether all went
// as it should.
bool FollowLink(CKorvaneClient& client, int hCnx, const Events& events, Messages& messages,
                int recoveries) {
    const auto limit = Clock::now() + std::chrono::seconds(20 + 10 * recoveries);
    auto quietEnd = Clock::time_point::max();
    int expected = kLost;  // the change that may come next
    int returns = 0;
    bool working = false;  // a request went through since the last return
    while (Clock::now() < quietEnd) {
        if (Clock::now() > limit) {
            std::fprintf(stderr, "%d of %d returns seen in time\n", returns, recoveries);
            return false;
        }
        int resultat = 0;
        const int r = client.Execute(hCnx, L"SELECT 1", resultat);
        // Between a loss and the return the library refuses requests, but the
        // return may be a moment ahead of its event: a request counts only
        // once the event was taken.
        if (r == KVN_NO_ERROR && expected == kLost && !working) {
            working = true;
            std::printf("%s\n", returns == 0 ? "link up" : "working again");
            // After the last return nothing may come any more.
            if (returns == recoveries) quietEnd = Clock::now() + std::chrono::milliseconds(500);
        }
        // Between two requests: what changed meanwhile (a refused request
        // needs no pause of its own, the wait is one).
        const int change = NextChange(events, r == KVN_NO_ERROR ? 20 : 200);
        messages.Read();
        if (change == kNothing) continue;
        if (change == kWrong) return false;
        std::printf("%s\n", kChangeName[change]);
        if (change != expected || returns == recoveries) {
            std::fprintf(stderr, "\"%s\" came %s\n", kChangeName[change],
                         returns == recoveries ? "after the last return" : "twice in a row");
            return false;
        }
        // Both events quiet again: the one taken told its change once, and
        // the other was not set with it.
        if (NextChange(events, 0) != kNothing) {
            std::fprintf(stderr, "another change came with \"%s\"\n", kChangeName[change]);
            return false;
        }
        if (change == kLost) {
            working = false;
        } else {
            ++returns;
        }
        expected = 1 - change;
    }
    // The messages came with the changes, one of each per loss and return.
    return messages.Are(recoveries, recoveries);
}

}  // namespace

int main(int argc, char** argv) {
    Events events = {{nullptr, nullptr}, true};
    int arg = 1;
    if (argc > arg && std::strcmp(argv[arg], "--waits") == 0) {
        events.watchFds = false;
        ++arg;
    }
    wchar_t host[20];
    std::swprintf(host, 20, L"%s", argc > arg ? argv[arg] : "127.0.0.1");
    const int port = argc > arg + 1 ? std::atoi(argv[arg + 1]) : 5151;
    const int recoveries = argc > arg + 2 ? std::atoi(argv[arg + 2]) : 1;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each line shows at once, also in a file

    if (SockInitWinSock() != 1) return 1;
    Messages messages = {KvnCreateNotifyWindow(), kvn::RegisterWindowMessageW(KVN_MSG_PERTE_COMM),
                         kvn::RegisterWindowMessageW(KVN_MSG_COMM_OK)};
    bool ok = false;
    {
        CKorvaneClient client;
        int dbType = 0;
        const int hCnx = client.Init(host, port, 0, L"event_loop", dbType, 0, nullptr, messages.window) ==
                                 KVN_NO_ERROR
                             ? client.GetConnexion()
                             : -1;
        if (hCnx < 0) {
            std::fprintf(stderr, "no session with %ls:%d: %ls\n", host, port, client.GetLastError().GetString());
        } else {
            events.handles[kLost] = client.GetEventPerteComm();
            events.handles[kBack] = client.GetEventCommOK();
            // The opening set "comm OK" and posted its message: taken now, so
            // that the loop sees only what follows.
            ok = NextChange(events, 0) == kBack && NextChange(events, 0) == kNothing;
            if (!ok) std::fprintf(stderr, "the opening did not set \"comm OK\" alone\n");
            messages.Read();
            ok = ok && messages.Are(0, 1);
            messages.back = 0;
            ok = ok && FollowLink(client, hCnx, events, messages, recoveries);
        }
        // Closing the session with every link up tells a loss. The events
        // outlive the session (and their descriptors with them) until the
        // client object is destroyed.
        client.Free();
        if (ok) {
            ok = NextChange(events, 0) == kLost;
            if (!ok) std::fprintf(stderr, "closing the session did not set \"comm lost\" alone\n");
            messages.Read();
            ok = messages.Are(recoveries + 1, recoveries) && ok;
            if (ok) std::printf("session closed: link lost\n");
        }
    }
    KvnDestroyNotifyWindow(messages.window);
    SockCloseWinSock();
    return ok ? 0 : 1;
}
