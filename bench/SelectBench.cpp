// Reading a whole table, every cell of every row, in one run: through the
// sqlite3 C API directly, through libpq from a local PostgreSQL server (when
// one can be started here), and through KorvaneClient and korvaned with
// several block sizes; then Execute of a statement that the service has run
// before against statements it has never seen.
//
// The table: 100,000 rows (--rows) of an integer id, a 20-character text, a
// double, a timestamp and an integer that is NULL on every other row. Each
// reader turns every cell into the value an application would keep (numbers,
// the text copied out, the timestamp's fields) and adds them into a checksum,
// which must come out the same for every reader. Each figure is the best of
// --rounds runs; the machine is shared, so the ratio to sqlite3 measured in
// the same run is what counts.
//
//   SelectBench [--rows N] [--rounds R] [--executes N] [--blocks 10,100,...] [--no-postgres]
//   SelectBench --execute-on PORT --executes N
// The second form only runs the repeated statement N times on a service
// already listening on PORT (bench/execute-instructions.sh counts what the
// service spends on it).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <sqlite3.h>
#ifdef KVN_BENCH_LIBPQ
#include <libpq-fe.h>
#endif

#include <korvane/CKorvaneClient.h>
#include <korvane/SockInit.h>

#include "platform/Process.h"
#include "platform/Sockets.h"
#include "platform/Threads.h"

namespace fs = std::filesystem;

namespace {

struct Options {
    int rows = 100000;
    int rounds = 3;
    int executes = 2000;
    std::vector<int> blocks = {10, 100, 1000, 5000};
    bool postgres = true;
    unsigned short executeOnPort = 0;  // only Execute, on a service already running there
};

const char* const kSelect = "SELECT id, name, amount, stamp, maybe FROM t ORDER BY id";

double Seconds(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// ---- What every reader adds up ----------------------------------------------------

// The sum of every cell, so that the readers can be seen to read the same
// table: ids, NULL-able integers, text lengths and their last character,
// amounts, and the timestamp's fields.
struct Checksum {
    long long rows = 0;
    double sum = 0;

    void Row(long id, const wchar_t* name, double amount, int year, int month, int day, int hour, int minute,
             int second, bool maybeNull, long maybe) {
        const std::size_t len = std::wcslen(name);
        sum += id + amount + static_cast<double>(len) + (len ? name[len - 1] : 0);
        sum += year + month + day + hour + minute + second + (maybeNull ? -1 : maybe);
        rows++;
    }
    bool operator==(const Checksum& o) const { return rows == o.rows && sum == o.sum; }
};

// The digits of "YYYY-MM-DD hh:mm:ss" into their fields.
void ParseStamp(const char* text, int f[6]) {
    static const int kAt[6] = {0, 5, 8, 11, 14, 17};
    static const int kLen[6] = {4, 2, 2, 2, 2, 2};
    for (int k = 0; k < 6; k++) {
        f[k] = 0;
        for (int c = 0; c < kLen[k] && text[kAt[k] + c] >= '0' && text[kAt[k] + c] <= '9'; c++)
            f[k] = f[k] * 10 + (text[kAt[k] + c] - '0');
    }
}

void Widen(const char* text, wchar_t* out, std::size_t room) {
    std::size_t i = 0;
    for (; text[i] && i + 1 < room; i++) out[i] = static_cast<unsigned char>(text[i]);
    out[i] = 0;
}

struct Result {
    std::string reader;
    double seconds = 0;
    long long rows = 0;
    bool ok = true;
};

// The best of `rounds` runs of read(), which returns its checksum.
Result Best(const std::string& reader, int rounds, const Checksum& expected,
            const std::function<Checksum()>& read) {
    Result r;
    r.reader = reader;
    r.seconds = 1e9;
    for (int i = 0; i < rounds; i++) {
        const auto start = std::chrono::steady_clock::now();
        const Checksum got = read();
        const double s = Seconds(start);
        r.seconds = std::min(r.seconds, s);
        r.rows = got.rows;
        if (!(got == expected)) r.ok = false;
    }
    return r;
}

// ---- sqlite3 directly -----------------------------------------------------------------

bool MakeSqliteTable(const std::string& file, int rows) {
    sqlite3* db = nullptr;
    if (sqlite3_open(file.c_str(), &db) != SQLITE_OK) return false;
    bool ok = sqlite3_exec(db,
                           "CREATE TABLE t (id INTEGER, name VARCHAR(20), amount DOUBLE, stamp TIMESTAMP, maybe "
                           "INTEGER); CREATE TABLE counter (id INTEGER PRIMARY KEY, v INTEGER); "
                           "INSERT INTO counter VALUES (1, 0); BEGIN",
                           nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_stmt* insert = nullptr;
    ok = ok && sqlite3_prepare_v2(db, "INSERT INTO t VALUES (?, ?, ?, ?, ?)", -1, &insert, nullptr) == SQLITE_OK;
    for (int i = 1; ok && i <= rows; i++) {
        char name[32], stamp[32];
        std::snprintf(name, sizeof name, "name-%015d", i);
        const int s = i % 86400;
        std::snprintf(stamp, sizeof stamp, "2024-%02d-%02d %02d:%02d:%02d", 1 + i % 12, 1 + i % 28, s / 3600,
                      s / 60 % 60, s % 60);
        sqlite3_bind_int(insert, 1, i);
        sqlite3_bind_text(insert, 2, name, -1, SQLITE_TRANSIENT);
        sqlite3_bind_double(insert, 3, i * 0.25);
        sqlite3_bind_text(insert, 4, stamp, -1, SQLITE_TRANSIENT);
        if (i % 2) sqlite3_bind_null(insert, 5);
        else sqlite3_bind_int(insert, 5, i);
        ok = sqlite3_step(insert) == SQLITE_DONE && sqlite3_reset(insert) == SQLITE_OK;
    }
    sqlite3_finalize(insert);
    ok = ok && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    return ok;
}

Checksum ReadSqlite(const std::string& file) {
    Checksum c;
    sqlite3* db = nullptr;
    sqlite3_stmt* st = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(db, kSelect, -1, &st, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return c;
    }
    while (sqlite3_step(st) == SQLITE_ROW) {
        wchar_t name[64];
        int f[6];
        Widen(reinterpret_cast<const char*>(sqlite3_column_text(st, 1)), name, 64);
        ParseStamp(reinterpret_cast<const char*>(sqlite3_column_text(st, 3)), f);
        const bool null = sqlite3_column_type(st, 4) == SQLITE_NULL;
        c.Row(sqlite3_column_int(st, 0), name, sqlite3_column_double(st, 2), f[0], f[1], f[2], f[3], f[4], f[5],
              null, null ? 0 : sqlite3_column_int(st, 4));
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return c;
}

// ---- libpq ----------------------------------------------------------------------------

#ifdef KVN_BENCH_LIBPQ
bool RunPq(PGconn* pg, const char* sql) {
    PGresult* r = PQexec(pg, sql);
    const bool ok = PQresultStatus(r) == PGRES_COMMAND_OK || PQresultStatus(r) == PGRES_TUPLES_OK;
    if (!ok) std::fprintf(stderr, "libpq: %s", PQerrorMessage(pg));
    PQclear(r);
    return ok;
}

bool MakePostgresTable(PGconn* pg, int rows) {
    const std::string fill =
        "INSERT INTO t SELECT i, 'name-' || lpad(i::text, 15, '0'), i * 0.25, "
        "make_timestamp(2024, 1 + i % 12, 1 + i % 28, (i % 86400) / 3600, (i % 86400) / 60 % 60, i % 60), "
        "CASE WHEN i % 2 = 1 THEN NULL ELSE i END FROM generate_series(1, " + std::to_string(rows) + ") i";
    return RunPq(pg, "CREATE TABLE t (id integer, name varchar(20), amount double precision, stamp timestamp, "
                     "maybe integer)") &&
           RunPq(pg, fill.c_str()) &&
           RunPq(pg, "CREATE TABLE counter (id integer PRIMARY KEY, v integer); INSERT INTO counter VALUES (1, 0)");
}

Checksum ReadPq(PGconn* pg) {
    Checksum c;
    PGresult* r = PQexec(pg, kSelect);
    if (PQresultStatus(r) == PGRES_TUPLES_OK) {
        const int n = PQntuples(r);
        for (int i = 0; i < n; i++) {
            wchar_t name[64];
            int f[6];
            Widen(PQgetvalue(r, i, 1), name, 64);
            ParseStamp(PQgetvalue(r, i, 3), f);
            const bool null = PQgetisnull(r, i, 4) != 0;
            c.Row(std::strtol(PQgetvalue(r, i, 0), nullptr, 10), name, std::strtod(PQgetvalue(r, i, 2), nullptr),
                  f[0], f[1], f[2], f[3], f[4], f[5], null, null ? 0 : std::strtol(PQgetvalue(r, i, 4), nullptr, 10));
        }
    }
    PQclear(r);
    return c;
}
#endif

// ---- korvaned and the library ----------------------------------------------------------

// korvaned started on a database, stopped at the end.
class Service {
public:
    Service(const fs::path& dir, const std::vector<std::string>& database, int blockRows) {
        const std::string portFile = (dir / ("port-" + std::to_string(serial_))).string();
        const std::string log = (dir / ("korvaned-" + std::to_string(serial_++) + ".log")).string();
        std::vector<std::string> args = {KVN_KORVANED_PATH, "--port", "0", "--port-file", portFile,
                                         "--block-rows", std::to_string(blockRows), "--hb-mode", "unicast",
                                         "--hb-address", "127.0.0.1", "--hb-port", std::to_string(FreeUdpPort()),
                                         "--hb-period", "250", "--hb-count", "40", "--log-level", "0"};
        args.insert(args.end(), database.begin(), database.end());
        std::vector<const char*> argv;
        for (const std::string& a : args) argv.push_back(a.c_str());
        argv.push_back(nullptr);
        process_ = KvnStartProcess(argv[0], argv.data(), log.c_str(), TRUE);
        for (int i = 0; process_ != 0 && i < 1000 && port_ == 0; i++) {
            unsigned p = 0;
            std::ifstream in(portFile);
            if (in >> p) port_ = static_cast<unsigned short>(p);
            else KvnSleep(10);  // it writes the file once it listens
        }
    }
    ~Service() {
        if (process_ == 0) return;
        KvnTerminateProcess(process_);
        KvnWaitProcess(process_, 20000, nullptr);
    }
    unsigned short Port() const { return port_; }

private:
    static unsigned short FreeUdpPort() {
        SOCKET s = KvnUdpSocket();
        unsigned short port = 0;
        if (s != INVALID_SOCKET && KvnBind(s, KvnLoopbackAddress(), 0) == 0) port = KvnGetLocalPort(s);
        if (s != INVALID_SOCKET) KvnCloseSocket(s);
        return port;
    }
    static int serial_;
    KvnProcess process_ = 0;
    unsigned short port_ = 0;
};
int Service::serial_ = 0;

// A session with one connection on a service.
struct Session {
    CKorvaneClient client;
    int hCnx = 0;
    explicit Session(unsigned short port) {
        int dbType = 0;
        if (port != 0 && client.Init(L"127.0.0.1", port, 0, L"SelectBench", dbType, 0, nullptr, nullptr) == 0)
            hCnx = client.GetConnexion();
    }
    ~Session() { client.Free(); }
    bool Ok() const { return hCnx > 0; }
};

Checksum ReadKorvane(Session& s) {
    Checksum c;
    wchar_t sql[128];
    std::swprintf(sql, 128, L"%s", kSelect);
    int resultat = 0;
    if (s.client.ExecuteSelect(s.hCnx, sql, resultat) != 0) return c;
    CKorvaneClient& k = s.client;
    const int h = s.hCnx;
    while (k.Fetch(h) == 0) {
        long id = 0, maybe = 0;
        wchar_t name[64];
        double amount = 0;
        SYSTEMTIME t{};
        k.GetData(h, 1, id);
        k.GetData(h, 2, name);
        k.GetData(h, 3, amount);
        k.GetData(h, 4, t);
        const bool null = k.GetData(h, 5, maybe) == KVN_NULL_DATA;
        c.Row(id, name, amount, t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, null, maybe);
    }
    return c;
}

// Microseconds per Execute of `count` statements, the i-th being sql(i).
double ExecuteMicros(Session& s, int count, const std::function<std::wstring(int)>& sql) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < count; i++) {
        int resultat = 0;
        if (s.client.Execute(s.hCnx, sql(i).c_str(), resultat) != 0) return -1;
    }
    return Seconds(start) * 1e6 / count;
}

// ---- The table of results ----------------------------------------------------------------

void Print(const std::vector<Result>& results, int columns) {
    const double anchor = results.empty() ? 0 : results.front().seconds;
    std::printf("| %-44s | %8s | %10s | %10s | %13s |\n", "Reader", "Seconds", "Rows/s", "Cells/s", "Against sqlite3");
    std::printf("|%s|%s|%s|%s|%s|\n", std::string(46, '-').c_str(), std::string(10, '-').c_str(),
                std::string(12, '-').c_str(), std::string(12, '-').c_str(), std::string(17, '-').c_str());
    for (const Result& r : results) {
        const double rate = r.rows / r.seconds;
        std::printf("| %-44s | %8.3f | %9.2fM | %9.2fM | %15.2f |%s\n", r.reader.c_str(), r.seconds, rate / 1e6,
                    rate * columns / 1e6, r.seconds / anchor, r.ok ? "" : "  (checksum differs!)");
    }
}

bool ParseArgs(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        if (a == "--no-postgres") {
            o.postgres = false;
            continue;
        }
        if (i + 1 >= argc) return false;
        const char* v = argv[++i];
        if (a == "--rows") o.rows = std::atoi(v);
        else if (a == "--execute-on") o.executeOnPort = static_cast<unsigned short>(std::atoi(v));
        else if (a == "--rounds") o.rounds = std::atoi(v);
        else if (a == "--executes") o.executes = std::atoi(v);
        else if (a == "--blocks") {
            o.blocks.clear();
            for (const char* p = v; *p;) {
                o.blocks.push_back(std::atoi(p));
                while (*p && *p != ',') p++;
                if (*p) p++;
            }
        } else return false;
    }
    return o.rows > 0 && o.rounds > 0 && o.executes > 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!ParseArgs(argc, argv, o)) {
        std::fprintf(stderr, "usage: %s [--rows N] [--rounds R] [--executes N] [--blocks 10,100,...] [--no-postgres]\n", argv[0]);
        return 2;
    }
    SockInitWinSock();
    const wchar_t* const repeated = L"UPDATE counter SET v = v + 1 WHERE id = 1";
    if (o.executeOnPort != 0) {
        Session s(o.executeOnPort);
        int resultat = 0;
        const bool ok = s.Ok() && s.client.Execute(s.hCnx, L"DROP TABLE IF EXISTS counter", resultat) == 0 &&
                        s.client.Execute(s.hCnx, L"CREATE TABLE counter (id INTEGER PRIMARY KEY, v INTEGER)", resultat) == 0 &&
                        s.client.Execute(s.hCnx, L"INSERT INTO counter VALUES (1, 0)", resultat) == 0 &&
                        ExecuteMicros(s, o.executes, [&](int) { return std::wstring(repeated); }) >= 0;
        SockCloseWinSock();
        return ok ? 0 : 1;
    }
    std::random_device random;
    const fs::path dir = fs::temp_directory_path() / ("kvn-selectbench-" + std::to_string(random()));
    fs::create_directories(dir);
    const std::string file = (dir / "bench.db").string();
    if (!MakeSqliteTable(file, o.rows)) {
        std::fprintf(stderr, "cannot build the SQLite table in %s\n", file.c_str());
        return 1;
    }
    const Checksum expected = ReadSqlite(file);
    std::printf("%d rows of 5 columns; best of %d rounds\n\n", o.rows, o.rounds);

    std::vector<Result> results;
    results.push_back(Best("sqlite3 C API, directly", o.rounds, expected, [&] { return ReadSqlite(file); }));

#ifdef KVN_BENCH_LIBPQ
    // A PostgreSQL server of our own, as the service's tests start one.
    const unsigned short pgPort = [] {
        SOCKET s = KvnTcpListen(KvnLoopbackAddress(), 0, 1);
        const unsigned short p = KvnGetLocalPort(s);
        KvnCloseSocket(s);
        return p;
    }();
    const std::string pgDir = (dir / "pg").string();
    const std::string script = std::string(KVN_SERVICE_TEST_DIR) + "/start-postgres.sh";
    const char* startArgs[] = {"/bin/bash", script.c_str(), pgDir.c_str(), nullptr, nullptr};
    const std::string pgPortText = std::to_string(pgPort);
    startArgs[3] = pgPortText.c_str();
    int code = -1;
    const KvnProcess starting = o.postgres ? KvnStartProcess(startArgs[0], startArgs, nullptr, TRUE) : 0;
    const bool pgStarted = o.postgres && starting != 0 && KvnWaitProcess(starting, 120000, &code) == 1 && code == 0;
    PGconn* pg = nullptr;
    if (pgStarted) {
        const std::string conninfo = "host=127.0.0.1 port=" + pgPortText + " user=postgres dbname=korvane";
        pg = PQconnectdb(conninfo.c_str());
        if (PQstatus(pg) != CONNECTION_OK || !MakePostgresTable(pg, o.rows)) {
            PQfinish(pg);
            pg = nullptr;
        }
    }
    if (pg) {
        results.push_back(Best("libpq, PostgreSQL on loopback", o.rounds, expected, [&] { return ReadPq(pg); }));
    } else {
        std::printf("(no PostgreSQL server could be started here: libpq not measured)\n");
    }
#endif

    for (int block : o.blocks) {
        Service service(dir, {"--database", file}, block);
        Session s(service.Port());
        if (!s.Ok()) {
            std::fprintf(stderr, "korvaned with blocks of %d did not serve\n", block);
            continue;
        }
        results.push_back(Best("KorvaneClient + korvaned, blocks of " + std::to_string(block), o.rounds, expected,
                               [&] { return ReadKorvane(s); }));
    }
    std::string pgDriver;
#ifdef KVN_BENCH_LIBPQ
    for (const char* place : {"/usr/lib/x86_64-linux-gnu/odbc/psqlodbcw.so", "/usr/lib/aarch64-linux-gnu/odbc/psqlodbcw.so",
                              "/usr/lib/odbc/psqlodbcw.so", "/usr/lib64/psqlodbcw.so"}) {
        if (pgDriver.empty() && std::ifstream(place).good()) pgDriver = place;
    }
    if (pg && !pgDriver.empty()) {
        const std::string odbc = "DRIVER=" + pgDriver + ";Servername=127.0.0.1;Port=" + pgPortText +
                                 ";Database=korvane;Username=postgres;Password=;";
        Service service(dir, {"--odbc", odbc}, 100);
        Session s(service.Port());
        if (s.Ok())
            results.push_back(Best("KorvaneClient + korvaned on PostgreSQL, 100", o.rounds, expected,
                                   [&] { return ReadKorvane(s); }));
    }
#endif
    Print(results, 5);

    // Execute: the same statement again and again, which the service can keep
    // prepared, against statements that are each new to it; on an in-memory
    // SQLite database (a file would time its disk) and on PostgreSQL.
    std::vector<std::pair<std::string, std::vector<std::string>>> executeOn = {
        {"SQLite in memory", {"--database", ":memory:"}}};
#ifdef KVN_BENCH_LIBPQ
    if (pg && !pgDriver.empty())
        executeOn.push_back({"PostgreSQL", {"--odbc", "DRIVER=" + pgDriver + ";Servername=127.0.0.1;Port=" + pgPortText +
                                                          ";Database=korvane;Username=postgres;Password=;"}});
#endif
    std::printf("\nExecute through korvaned, %d a round, best of %d (microseconds):\n", o.executes, o.rounds);
    for (const auto& target : executeOn) {
        Service service(dir, target.second, 100);
        Session s(service.Port());
        int resultat = 0;
        if (!s.Ok() || s.client.Execute(s.hCnx, L"DROP TABLE IF EXISTS counter", resultat) != 0 ||
            s.client.Execute(s.hCnx, L"CREATE TABLE counter (id INTEGER PRIMARY KEY, v INTEGER)", resultat) != 0 ||
            s.client.Execute(s.hCnx, L"INSERT INTO counter VALUES (1, 0)", resultat) != 0) {
            std::printf("  %s: the table could not be made\n", target.first.c_str());
            continue;
        }
        const auto same = [&](int) { return std::wstring(repeated); };
        double cached = 1e9, uncached = 1e9;
        for (int r = 0; r < o.rounds; r++) {
            cached = std::min(cached, ExecuteMicros(s, o.executes, same));
            uncached = std::min(uncached, ExecuteMicros(s, o.executes, [&](int i) {
                return L"UPDATE counter SET v = v + " + std::to_wstring(r * o.executes + i + 1) + L" WHERE id = 1";
            }));
        }
        std::printf("  %-18s the same statement %7.1f, a new one each time %7.1f (%.2f times)\n",
                    (target.first + ":").c_str(), cached, uncached, uncached / cached);
    }

#ifdef KVN_BENCH_LIBPQ
    if (pg) PQfinish(pg);
    if (pgStarted) {
        const char* stopArgs[] = {"/bin/bash", script.c_str(), "--stop", pgDir.c_str(), nullptr};
        const KvnProcess stopping = KvnStartProcess(stopArgs[0], stopArgs, nullptr, FALSE);
        if (stopping != 0) KvnWaitProcess(stopping, 60000, nullptr);
    }
#endif
    std::error_code ignored;
    fs::remove_all(dir, ignored);
    SockCloseWinSock();
    bool ok = true;
    for (const Result& r : results) ok = ok && r.ok;
    return ok ? 0 : 1;
}
