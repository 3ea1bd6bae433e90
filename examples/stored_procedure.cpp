// A stored procedure with IN and OUT parameters: the application declares
// each parameter with its own variable, calls the procedure, and finds the
// OUT values in its variables. Runs against korvaned on PostgreSQL, where the
// program first creates the procedure (as a function with OUT parameters).
//
//   stored_procedure [HOST [PORT]]      (default 127.0.0.1 5151)
#include <korvane/KorvaneClient.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <initializer_list>

namespace {

int Fail(CKorvaneClient& client, int hCnx, const char* what, int code) {
    wchar_t text[128];
    client.GetErrorTxt(code, text);
    std::fprintf(stderr, "%s: %d %ls\n", what, code, text);
    DStr detail;
    if (code == KVN_ERROR_ODBC && client.GetLastErrorConnexion(hCnx, detail) == KVN_NO_ERROR) {
        std::fprintf(stderr, "  the database said: %ls\n", detail.GetString());
    }
    return 1;
}

int Run(CKorvaneClient& client, int hCnx) {
    int resultat = 0;
    int r = client.Execute(hCnx,
                           L"CREATE OR REPLACE FUNCTION example_quote(IN qty integer, IN unit_price double precision, "
                           L"OUT total double precision, OUT label varchar) AS $$ BEGIN "
                           L"total := qty * unit_price; label := qty || ' x ' || unit_price; END $$ LANGUAGE plpgsql",
                           resultat);
    if (r != KVN_NO_ERROR) return Fail(client, hCnx, "create the procedure", r);

    double total = 0;
    wchar_t label[64] = L"";
    for (int qty : {12, 3}) {  // SQL_C_LONG: a 32-bit variable
        // The IN values are taken as the parameters are declared; the OUT
        // variables stay the application's, and the library writes the
        // returned values into them when the call succeeds, so they must
        // outlive it. A text OUT variable must hold the longest text the
        // procedure returns.
        double unitPrice = 2.5;
        client.ClearStoredProcParams(hCnx);
        client.AddStoredProcParams(hCnx, KVN_PARAM_IN, SQL_C_LONG, &qty, 0);
        client.AddStoredProcParams(hCnx, KVN_PARAM_IN, SQL_C_DOUBLE, &unitPrice, 0);
        client.AddStoredProcParams(hCnx, KVN_PARAM_OUT, SQL_C_DOUBLE, &total, 0);
        client.AddStoredProcParams(hCnx, KVN_PARAM_OUT, SQL_C_WCHAR, label, 0);
        if ((r = client.ExecStoredProc(hCnx, L"example_quote", 0)) != KVN_NO_ERROR) {
            return Fail(client, hCnx, "call the procedure", r);
        }
        std::printf("total %.2f, label '%ls'\n", total, label);
    }
    return total == 7.5 && std::wcscmp(label, L"3 x 2.5") == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    wchar_t host[20];
    std::swprintf(host, 20, L"%s", argc > 1 ? argv[1] : "127.0.0.1");
    const int port = argc > 2 ? std::atoi(argv[2]) : 5151;
    if (SockInitWinSock() != 1) return 1;
    int status = 1;
    {
        CKorvaneClient client;
        int dbType = 0;
        if (client.Init(host, port, 0, L"stored_procedure", dbType, 0, nullptr, nullptr) != KVN_NO_ERROR) {
            std::fprintf(stderr, "no service at %ls:%d: %ls\n", host, port, client.GetLastError().GetString());
        } else {
            const int hCnx = client.GetConnexion();
            if (hCnx > 0) {
                status = Run(client, hCnx);
                client.FreeConnexion(hCnx);
            } else {
                std::fprintf(stderr, "no connection: %d\n", hCnx);
            }
        }
        client.Free();
    }
    SockCloseWinSock();
    return status;
}
