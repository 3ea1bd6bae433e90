// A session with the service: a logical connection, a table created and
// filled, then a select whose rows are read column by column, each with the
// type the application wants.
//
//   select_by_type [HOST [PORT]]      (default 127.0.0.1 5151)
#include <korvane/KorvaneClient.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>

namespace {

// Prints what went wrong with the last operation on the connection: the
// library's text for the result code and, for a refusal by the database, the
// database's own text.
void Report(CKorvaneClient& client, int hCnx, const char* what, int code) {
    wchar_t text[128];
    client.GetErrorTxt(code, text);
    std::fprintf(stderr, "%s: %d %ls\n", what, code, text);
    DStr detail;
    if (code == KVN_ERROR_ODBC && client.GetLastErrorConnexion(hCnx, detail) == KVN_NO_ERROR) {
        std::fprintf(stderr, "  the database said: %ls\n", detail.GetString());
    }
}

}  // namespace

int main(int argc, char** argv) {
    wchar_t host[20];
    std::swprintf(host, 20, L"%s", argc > 1 ? argv[1] : "127.0.0.1");
    const int port = argc > 2 ? std::atoi(argv[2]) : 5151;

    // The socket layer is started once per process, before the first session.
    if (SockInitWinSock() != 1) return 1;
    int status = 1;
    {
        CKorvaneClient client;
        int dbType = 0;
        // No loader to wake (0), no log (level 0), no window for the notifications.
        if (client.Init(host, port, 0, L"select_by_type", dbType, 0, nullptr, nullptr) != KVN_NO_ERROR) {
            std::fprintf(stderr, "no service at %ls:%d: %ls\n", host, port, client.GetLastError().GetString());
            // A refused session keeps its socket until Free, which comes
            // before the socket layer stops.
            client.Free();
            SockCloseWinSock();
            return 1;
        }
        const int hCnx = client.GetConnexion();
        if (hCnx < 0) {
            std::fprintf(stderr, "no connection: %d\n", hCnx);
        } else {
            int resultat = 0;
            const wchar_t* setup[] = {
                L"DROP TABLE IF EXISTS example_items",
                L"CREATE TABLE example_items (id INTEGER, name VARCHAR(40), price DOUBLE PRECISION, "
                L"added TIMESTAMP)",
                L"INSERT INTO example_items VALUES (1, 'bolt', 0.25, '2024-05-01 08:30:00')",
                L"INSERT INTO example_items VALUES (2, 'nut', 0.1, '2024-05-02 17:05:10')",
                L"INSERT INTO example_items VALUES (3, 'washer', NULL, '2024-05-03 12:00:00')",
            };
            int r = KVN_NO_ERROR;
            for (const wchar_t* sql : setup) {
                if ((r = client.Execute(hCnx, sql, resultat)) != KVN_NO_ERROR) {
                    Report(client, hCnx, "execute", r);
                    break;
                }
            }
            if (r == KVN_NO_ERROR) {
                r = client.ExecuteSelect(hCnx, L"SELECT id, name, price, added FROM example_items ORDER BY id",
                                         resultat);
            }
            if (r != KVN_NO_ERROR) Report(client, hCnx, "select", r);
            int rows = 0;
            // Fetch makes the next row current; the rows arrive in blocks and
            // the library asks for the next block by itself.
            while (r == KVN_NO_ERROR && (r = client.Fetch(hCnx)) == KVN_NO_ERROR) {
                long id = 0;
                DStr name;
                double price = 0;
                kvn::SYSTEMTIME added{};
                client.GetData(hCnx, 1, id);
                client.GetData(hCnx, 2, name);
                const int priceCode = client.GetData(hCnx, 3, price);
                client.GetData(hCnx, 4, added);
                std::printf("%ld %-8ls ", id, name.GetString());
                // A NULL value is an outcome of its own, not a failure.
                if (priceCode == KVN_NULL_DATA) std::printf("%8s", "(none)");
                else std::printf("%8.2f", price);
                std::printf("  %04d-%02d-%02d %02d:%02d:%02d\n", added.wYear, added.wMonth, added.wDay,
                            added.wHour, added.wMinute, added.wSecond);
                ++rows;
            }
            if (r == KVN_NO_DATA) {
                std::printf("%d rows\n", rows);
                status = rows == 3 ? 0 : 1;
            } else if (r != KVN_NO_ERROR) {
                Report(client, hCnx, "fetch", r);
            }
            client.FreeConnexion(hCnx);
        }
        client.Free();
    }
    SockCloseWinSock();
    return status;
}
