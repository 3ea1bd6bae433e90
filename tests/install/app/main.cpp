// Uses the installed library through its public headers only.
#include <korvane/KorvaneClient.h>

#include <cstdio>
#include <cwchar>

int main() {
    if (SockInitWinSock() != 1) {
        std::fprintf(stderr, "SockInitWinSock failed\n");
        return 1;
    }
    DStr text;
    text.Printf(L"%ls %d", L"KorvaneClient", 1);
    bool ok = text == L"KorvaneClient 1";
    SockCloseWinSock();
    std::printf("installed package: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
