// Stored procedures through the library against korvaned on PostgreSQL: IN,
// IN/OUT and OUT values of each type come back into the application's
// variables. PostgreSQL is started by start-postgres.sh in a temporary
// directory on a loopback port; the tests skip where it or its ODBC driver is
// not installed.
#include <gtest/gtest.h>

#include <cstdint>
#include <cwchar>
#include <fstream>
#include <string>
#include <vector>

#include "E2eSession.h"
#include "platform/Process.h"

using e2e::Narrow;

namespace {

std::string FindPostgresDriver() {
    for (const char* place : {"/usr/lib/x86_64-linux-gnu/odbc/psqlodbcw.so", "/usr/lib/aarch64-linux-gnu/odbc/psqlodbcw.so",
                              "/usr/lib/x86_64-linux-gnu/odbc/psqlodbca.so", "/usr/lib/aarch64-linux-gnu/odbc/psqlodbca.so",
                              "/usr/lib/odbc/psqlodbca.so", "/usr/lib64/psqlodbca.so"}) {
        if (std::ifstream(place).good()) return place;
    }
    return std::string();
}

// Runs start-postgres.sh with its arguments: its exit code, or -1.
int RunScript(const std::vector<std::string>& arguments, DWORD timeoutMs) {
    const std::string script = std::string(KVN_SERVICE_TEST_DIR) + "/start-postgres.sh";
    std::vector<std::string> args = {"/bin/bash", script};
    args.insert(args.end(), arguments.begin(), arguments.end());
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    KvnProcess p = KvnStartProcess("/bin/bash", argv.data(), nullptr);
    if (p == 0) return -1;
    int code = -1;
    if (KvnWaitProcess(p, timeoutMs, &code) != 1) {
        KvnTerminateProcess(p);
        KvnWaitProcess(p, INFINITE, &code);
        return -1;
    }
    return code;
}

// One server for the test program: starting one takes seconds.
struct Postgres {
    TempDir dir;
    std::string skipReason;
    std::string connection;
    bool started = false;

    Postgres() {
        const std::string driver = FindPostgresDriver();
        if (driver.empty()) {
            skipReason = "the PostgreSQL ODBC driver is not installed (odbc-postgresql)";
            return;
        }
        const unsigned short port = e2e::FreeTcpPort();
        const int code = RunScript({dir.File("pg"), std::to_string(port)}, 120000);
        if (code == 77) {
            skipReason = "PostgreSQL is not installed (postgresql)";
            return;
        }
        if (code != 0) {
            skipReason = "start-postgres.sh could not start PostgreSQL (exit code " + std::to_string(code) + ")";
            return;
        }
        started = true;
        connection = "DRIVER=" + driver + ";Servername=127.0.0.1;Port=" + std::to_string(port) +
                     ";Database=korvane;Username=postgres;Password=;";
    }
    ~Postgres() {
        if (started) RunScript({"--stop", dir.File("pg")}, 60000);
    }
};

Postgres* g_postgres = nullptr;

class E2ePostgres : public e2e::E2eTest {
protected:
    static void SetUpTestSuite() { g_postgres = new Postgres; }
    static void TearDownTestSuite() {
        delete g_postgres;
        g_postgres = nullptr;
    }

    void SetUp() override {
        E2eTest::SetUp();
        if (!g_postgres->skipReason.empty()) GTEST_SKIP() << g_postgres->skipReason;
        Start(e2e::ServiceArguments(4, {"--odbc", g_postgres->connection}));
    }
};

}  // namespace

TEST_F(E2ePostgres, StoredProceduresReturnTheirOutAndInOutValues) {
    MustExecute(L"CREATE OR REPLACE FUNCTION kvn_tax(IN price double precision, INOUT qty integer, "
                L"OUT label varchar) AS $$ BEGIN qty := qty * 2; label := 'price ' || price; END $$ "
                L"LANGUAGE plpgsql");
    double price = 10.5;
    std::int32_t qty = 3;
    wchar_t label[64] = L"unchanged";
    ASSERT_EQ(KVN_NO_ERROR, client.ClearStoredProcParams(hCnx));
    ASSERT_EQ(KVN_NO_ERROR, client.AddStoredProcParams(hCnx, KVN_PARAM_IN, SQL_C_DOUBLE, &price, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.AddStoredProcParams(hCnx, KVN_PARAM_INOUT, SQL_C_LONG, &qty, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.AddStoredProcParams(hCnx, KVN_PARAM_OUT, SQL_C_WCHAR, label, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, L"kvn_tax", 0)) << ErrorText();
    EXPECT_EQ(6, qty);
    EXPECT_STREQ(L"price 10.5", label);
    EXPECT_DOUBLE_EQ(10.5, price) << "an IN value is not written";

    // The declarations stay: a second call sends the IN value of the IN/OUT
    // parameter as it was declared, not what came back.
    qty = 100;
    std::wcscpy(label, L"unchanged");
    DStr name(L"kvn_tax");
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, name, 0)) << ErrorText();
    EXPECT_EQ(6, qty);
    EXPECT_STREQ(L"price 10.5", label);

    // 64-bit integers, timestamps and texts both ways.
    MustExecute(L"CREATE OR REPLACE FUNCTION kvn_kinds(IN n bigint, IN stamp timestamp, IN who varchar, "
                L"INOUT total bigint, OUT later timestamp, OUT greeting varchar, OUT half double precision) "
                L"AS $$ BEGIN total := total + n; later := stamp + interval '1 day 1 second'; "
                L"greeting := 'hello ' || who; half := n / 2.0; END $$ LANGUAGE plpgsql");
    std::int64_t n = 5000000000LL;
    KvnTimestamp stamp{2024, 2, 28, 23, 59, 58, 0};
    wchar_t who[] = L"caf\u00e9";
    std::int64_t total = 7;
    KvnTimestamp later{};
    wchar_t greeting[64] = L"";
    double half = 0;
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 1, KVN_PARAM_IN, SQL_C_SBIGINT, &n, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 2, KVN_PARAM_IN, SQL_C_TIMESTAMP, &stamp, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 3, KVN_PARAM_IN, SQL_C_WCHAR, who, std::wcslen(who)));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 4, KVN_PARAM_INOUT, SQL_C_SBIGINT, &total, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 5, KVN_PARAM_OUT, SQL_C_TIMESTAMP, &later, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 6, KVN_PARAM_OUT, SQL_C_WCHAR, greeting, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 7, KVN_PARAM_OUT, SQL_C_DOUBLE, &half, 0));
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, L"kvn_kinds", 0)) << ErrorText();
    EXPECT_EQ(5000000007LL, total);
    EXPECT_EQ(2024, e2e::Copy(later.year));
    EXPECT_EQ(2, e2e::Copy(later.month));
    EXPECT_EQ(29, e2e::Copy(later.day)) << "2024 is a leap year";
    EXPECT_EQ(23, e2e::Copy(later.hour));
    EXPECT_EQ(59, e2e::Copy(later.minute));
    EXPECT_EQ(59, e2e::Copy(later.second));
    EXPECT_STREQ(L"hello caf\u00e9", greeting);
    EXPECT_DOUBLE_EQ(2500000000.0, half);
}

TEST_F(E2ePostgres, ProcedureCallsWithoutValuesAndRefusedCalls) {
    MustExecute(L"CREATE TABLE IF NOT EXISTS kvn_calls (at timestamp DEFAULT now())");
    MustExecute(L"DELETE FROM kvn_calls");
    MustExecute(L"CREATE OR REPLACE FUNCTION kvn_touch() RETURNS void AS $$ INSERT INTO kvn_calls DEFAULT VALUES "
                L"$$ LANGUAGE sql");
    ASSERT_EQ(KVN_NO_ERROR, client.ClearStoredProcParams(hCnx));
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, L"kvn_touch", 0)) << ErrorText();
    ASSERT_EQ(KVN_NO_ERROR, client.ExecStoredProc(hCnx, L"kvn_touch", 0)) << ErrorText();
    int resultat = -1;
    ASSERT_EQ(KVN_NO_ERROR, client.ExecuteSelect(hCnx, L"SELECT COUNT(*) FROM kvn_calls", resultat));
    ASSERT_EQ(KVN_NO_ERROR, client.Fetch(hCnx));
    __int64 count = 0;
    EXPECT_EQ(KVN_NO_ERROR, client.GetData(hCnx, 1, count));
    EXPECT_EQ(2, count);

    // A procedure the database does not know: its own text explains.
    std::int32_t out = 42;
    ASSERT_EQ(KVN_NO_ERROR, client.SetStoredProcParams(hCnx, 1, KVN_PARAM_OUT, SQL_C_LONG, &out, 0));
    EXPECT_EQ(KVN_ERROR_ODBC, client.ExecStoredProc(hCnx, L"kvn_missing", 0));
    EXPECT_EQ(42, out) << "nothing copied back from a refused call";
    EXPECT_NE(std::string::npos, ErrorText().find("kvn_missing")) << ErrorText();
    DStr empty;
    EXPECT_EQ(KVN_ERROR_PARAMETER, client.ExecStoredProc(hCnx, empty, 0));

    // The connection goes on working.
    EXPECT_EQ(1, MustExecute(L"INSERT INTO kvn_calls DEFAULT VALUES"));
}
