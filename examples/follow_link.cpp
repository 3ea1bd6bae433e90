// An application that keeps working through the loss of its link to the
// service: it runs a small query twice a second, is told of the loss and of
// the return of the link by the library's notification messages, and goes
// on once every link is back (the library reconnects by itself).
//
//   follow_link [HOST [PORT [RECOVERIES]]]
//
// Ends after RECOVERIES losses followed by a query that worked again
// (default: runs until stopped).
#include <korvane/KorvaneClient.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>

int main(int argc, char** argv) {
    wchar_t host[20];
    std::swprintf(host, 20, L"%s", argc > 1 ? argv[1] : "127.0.0.1");
    const int port = argc > 2 ? std::atoi(argv[2]) : 5151;
    const int wanted = argc > 3 ? std::atoi(argv[3]) : -1;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each line shows at once, also in a file

    if (SockInitWinSock() != 1) return 1;
    // The library posts its notifications to a window; this one is a queue
    // that the application reads when it likes, from any thread. The message
    // identifiers come from registering the same names as the library.
    kvn::HWND window = KvnCreateNotifyWindow();
    const kvn::UINT lost = KvnRegisterWindowMessage(L"KVN_MSG_PERTE_COMM");
    const kvn::UINT back = KvnRegisterWindowMessage(L"KVN_MSG_COMM_OK");
    int status = 1;
    {
        CKorvaneClient client;
        int dbType = 0;
        if (!window || client.Init(host, port, 0, L"follow_link", dbType, 0, nullptr, window) != KVN_NO_ERROR) {
            std::fprintf(stderr, "no service at %ls:%d\n", host, port);
        } else {
            const int hCnx = client.GetConnexion();
            bool everWorked = false;
            bool interrupted = false;  // since the last query that worked
            int recoveries = 0;
            while (hCnx > 0 && recoveries != wanted) {
                // Waiting for a notification paces the loop too.
                kvn::UINT msg = 0;
                kvn::WPARAM wParam = 0;
                kvn::LPARAM lParam = 0;
                if (KvnWaitNotifyMessage(window, 500, &msg, &wParam, &lParam)) {
                    if (msg == lost) {
                        interrupted = true;
                        std::printf("link lost: requests are refused until it is back\n");
                    } else if (msg == back) {
                        std::printf("main link back: the connections follow\n");
                    }
                    continue;
                }
                // Between a loss and the return of every link a request fails
                // (-53 and the like) without waiting: the application simply
                // tries again later.
                int resultat = 0;
                long value = 0;
                const bool ok = client.ExecuteSelect(hCnx, L"SELECT 42", resultat) == KVN_NO_ERROR &&
                                client.Fetch(hCnx) == KVN_NO_ERROR && client.GetData(hCnx, 1, value) == KVN_NO_ERROR &&
                                value == 42;
                if (ok && !everWorked) {
                    everWorked = true;
                    std::printf("link up: working\n");
                } else if (ok && interrupted) {
                    ++recoveries;
                    std::printf("working again\n");
                } else if (!ok && !interrupted) {
                    std::printf("a request failed: waiting for the link\n");
                }
                if (everWorked) interrupted = !ok;
            }
            status = hCnx > 0 ? 0 : 1;
        }
        client.Free();
    }
    KvnDestroyNotifyWindow(window);
    SockCloseWinSock();
    return status;
}
