// An application with an event loop of its own keeps working through the
// loss of its link: requests run one after another, and between two of them
// the loop looks at the two events that tell a loss and a return. On Linux it
// watches their descriptors with poll, as any loop that watches descriptors
// would (epoll, libuv, Qt, asio); on Windows it waits on the events
// themselves. Either way an event is taken with the wait functions, and the
// messages posted to the window are read with PeekMessageW. The same source
// builds on both.
//
//   event_loop [HOST [PORT [RECOVERIES]]]      (default 127.0.0.1 5151 1)
//
// It says "link up" once a request went through, "link lost" and "link back"
// as they come, and ends after RECOVERIES returns, each followed by a request
// that went through again.
#include <korvane/KorvaneClient.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cwchar>

#if !KVN_SYSTEM_WAITS
#include <poll.h>
#endif

namespace {

// The two events, in the order of their importance: a loss first.
enum { kLost = 0, kBack = 1, kNothing = -1 };

// Waits up to ms for the loss or the return, and takes what came.
int NextChange(kvn::HANDLE events[2], int ms) {
#if KVN_SYSTEM_WAITS
    const kvn::DWORD r = kvn::WaitForMultipleObjects(2, events, FALSE, static_cast<kvn::DWORD>(ms));
    if (r == kvn::kWaitObject0 + kLost) return kLost;
    if (r == kvn::kWaitObject0 + kBack) return kBack;
    return kNothing;
#else
    // Readable while set; the wait with no time then takes the event, which
    // makes its descriptor quiet again.
    pollfd fds[2] = {{KvnGetEventFd(events[kLost]), POLLIN, 0},
                     {KvnGetEventFd(events[kBack]), POLLIN, 0}};
    if (poll(fds, 2, ms) <= 0) return kNothing;
    for (int i = kLost; i <= kBack; ++i) {
        if ((fds[i].revents & POLLIN) && kvn::WaitForSingleObject(events[i], 0) == kvn::kWaitObject0) {
            return i;
        }
    }
    return kNothing;
#endif
}

// The messages posted to the window since last time.
void ReadMessages(kvn::HWND window, kvn::UINT lost, kvn::UINT back) {
    kvn::MSG m;
    while (kvn::PeekMessageW(&m, window, 0, 0, kvn::kPmRemove)) {
        std::printf("message: %s\n", m.message == lost ? "KVN_MSG_PERTE_COMM"
                                     : m.message == back ? "KVN_MSG_COMM_OK" : "other");
    }
}

}  // namespace

int main(int argc, char** argv) {
    wchar_t host[20];
    std::swprintf(host, 20, L"%s", argc > 1 ? argv[1] : "127.0.0.1");
    const int port = argc > 2 ? std::atoi(argv[2]) : 5151;
    const int recoveries = argc > 3 ? std::atoi(argv[3]) : 1;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each line shows at once, also in a file
    const kvn::UINT lost = kvn::RegisterWindowMessageW(KVN_MSG_PERTE_COMM);
    const kvn::UINT back = kvn::RegisterWindowMessageW(KVN_MSG_COMM_OK);

    if (SockInitWinSock() != 1) return 1;
    kvn::HWND window = KvnCreateNotifyWindow();
    int status = 1;
    {
        CKorvaneClient client;
        int dbType = 0;
        const int hCnx = client.Init(host, port, 0, L"event_loop", dbType, 0, nullptr, window) ==
                                 KVN_NO_ERROR
                             ? client.GetConnexion()
                             : -1;
        if (hCnx < 0) {
            std::fprintf(stderr, "no session with %ls:%d: %ls\n", host, port,
                         client.GetLastError().GetString());
        } else {
            kvn::HANDLE events[2] = {client.GetEventPerteComm(), client.GetEventCommOK()};
            // The opening set "comm OK" and posted its message: taken now, so
            // that the loop sees only what follows.
            kvn::WaitForSingleObject(events[kBack], 0);
            ReadMessages(window, lost, back);
            const auto start = std::chrono::steady_clock::now();
            bool up = false;       // the last request went through
            bool saidUp = false;   // "link up" said once
            int returns = 0;
            while (std::chrono::steady_clock::now() - start < std::chrono::seconds(60)) {
                int resultat = 0;
                const int r = client.Execute(hCnx, L"SELECT 1", resultat);
                if (r == KVN_NO_ERROR && !up) {
                    up = true;
                    if (!saidUp) std::printf("link up\n");
                    saidUp = true;
                    if (returns >= recoveries) {
                        status = 0;
                        break;
                    }
                }
                // Between two requests: what changed meanwhile (a refused
                // request needs no pause of its own, the wait is one).
                switch (NextChange(events, r == KVN_NO_ERROR ? 20 : 200)) {
                case kLost:
                    std::printf("link lost\n");
                    up = false;
                    break;
                case kBack:
                    std::printf("link back\n");
                    ++returns;
                    break;
                default: break;
                }
                ReadMessages(window, lost, back);
            }
            if (status != 0) std::fprintf(stderr, "%d of %d returns seen in 60 s\n", returns, recoveries);
        }
        client.Free();
        ReadMessages(window, lost, back);
    }
    KvnDestroyNotifyWindow(window);
    SockCloseWinSock();
    return status;
}
