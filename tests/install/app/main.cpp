// Uses the installed library through its public headers only.
#include <korvane/KorvaneClient.h>

#include <cstdio>
#include <cwchar>

int OdbcFirstTypeCodes();
int OdbcLastTypeCodes();

int main() {
    if (SockInitWinSock() != 1) {
        std::fprintf(stderr, "SockInitWinSock failed\n");
        return 1;
    }
    DStr text;
    text.Printf(L"%ls %d", L"KorvaneClient", 1);
    // The type codes are the same whether ODBC's definitions or the
    // library's are in force.
    const int codes = SQL_C_WCHAR + SQL_C_SBIGINT;
    bool ok = text == L"KorvaneClient 1" && OdbcFirstTypeCodes() == codes &&
              OdbcLastTypeCodes() == codes;
    SockCloseWinSock();
    std::printf("installed package: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
