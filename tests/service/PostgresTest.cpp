// korvaned on PostgreSQL through its ODBC driver: stored procedures with IN,
// IN/OUT and OUT values, and the same requests as on SQLite. The server is
// started by start-postgres.sh in a temporary directory on a loopback port;
// the tests skip where PostgreSQL or its ODBC driver is not installed.
#include <gtest/gtest.h>

#include <cwchar>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "RunningService.h"
#include "ServiceLinks.h"
#include "platform/Process.h"
#include "platform/Sockets.h"

namespace {

std::string FindPostgresDriver() {
    for (const char* place : {"/usr/lib/x86_64-linux-gnu/odbc/psqlodbca.so", "/usr/lib/aarch64-linux-gnu/odbc/psqlodbca.so",
                              "/usr/lib/odbc/psqlodbca.so", "/usr/lib64/psqlodbca.so"}) {
        if (std::ifstream(place).good()) return place;
    }
    return std::string();
}

// A port that was free a moment ago.
unsigned short FreePort() {
    SOCKET s = KvnTcpListen(KvnLoopbackAddress(), 0, 1);
    if (s == INVALID_SOCKET) return 0;
    const unsigned short port = KvnGetLocalPort(s);
    KvnCloseSocket(s);
    return port;
}

// Runs the script with its arguments: its exit code, or -1.
int RunScript(const std::vector<std::string>& arguments, int timeoutMs) {
    const std::string script = std::string(KVN_SERVICE_TEST_DIR) + "/start-postgres.sh";
    std::vector<std::string> args = {"/bin/bash", script};
    args.insert(args.end(), arguments.begin(), arguments.end());
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    KvnProcess p = KvnStartProcess("/bin/bash", argv.data(), nullptr);
    if (p == 0) return -1;
    int code = -1;
    if (KvnWaitProcess(p, static_cast<DWORD>(timeoutMs), &code) != 1) {
        KvnTerminateProcess(p);
        KvnWaitProcess(p, INFINITE, &code);
        return -1;
    }
    return code;
}

// One server for the whole suite: starting one takes seconds.
struct Postgres {
    TempDir dir;
    unsigned short port = 0;
    std::string skipReason;
    bool started = false;

    Postgres() {
        const std::string driver = FindPostgresDriver();
        if (driver.empty()) {
            skipReason = "the PostgreSQL ODBC driver is not installed (odbc-postgresql)";
            return;
        }
        port = FreePort();
        const int code = RunScript({dir.File("pg"), std::to_string(port)}, 120000);
        if (code == 77) {
            skipReason = "PostgreSQL is not installed (postgresql)";
            return;
        }
        EXPECT_EQ(0, code) << "start-postgres.sh failed";
        started = code == 0;
        connection = "DRIVER=" + driver + ";Servername=127.0.0.1;Port=" + std::to_string(port) +
                     ";Database=korvane;Username=postgres;Password=;";
    }
    ~Postgres() {
        if (started) RunScript({"--stop", dir.File("pg")}, 60000);
    }
    std::string connection;
};

Postgres* g_postgres = nullptr;

class ServicePostgres : public ::testing::Test {
protected:
    static void SetUpTestSuite() { g_postgres = new Postgres; }
    static void TearDownTestSuite() {
        delete g_postgres;
        g_postgres = nullptr;
    }

    void SetUp() override {
        if (!g_postgres->skipReason.empty()) GTEST_SKIP() << g_postgres->skipReason;
        ASSERT_TRUE(g_postgres->started);
        service_ = std::make_unique<RunningService>(
            std::vector<std::string>{"--odbc", g_postgres->connection, "--block-rows", "4"});
        ASSERT_NE(0, service_->Port());
        app_ = std::make_unique<ApplicationLink>(service_->Port());
        ASSERT_EQ(0, app_->result);
        cnx_ = std::make_unique<ConnexionLink>(service_->Port(), app_->IdApplication(), 1);
        ASSERT_EQ(0, cnx_->result);
    }

    void MustExecute(const wchar_t* sql) {
        ASSERT_TRUE(cnx_->Execute(sql));
        ASSERT_EQ(0, LongAt(cnx_->answer, 0)) << "refused: " << ErrorText();
    }

    std::string ErrorText() {
        if (!cnx_->ErrorText() || NullAt(cnx_->answer, 1)) return "(none)";
        const std::wstring t = TextAt(cnx_->answer, 1);
        return std::string(t.begin(), t.end());
    }

    std::unique_ptr<RunningService> service_;
    std::unique_ptr<ApplicationLink> app_;
    std::unique_ptr<ConnexionLink> cnx_;
};

}  // namespace

TEST_F(ServicePostgres, StoredProcedureReturnsItsOutAndInOutValues) {
    MustExecute(L"CREATE OR REPLACE FUNCTION kvn_tax(IN price double precision, INOUT qty integer, "
                L"OUT label varchar) AS $$ BEGIN qty := qty * 2; label := 'price ' || price; END $$ "
                L"LANGUAGE plpgsql");
    CParamProc params[3];
    params[0].cType = SQL_C_DOUBLE, params[0].nTaille = 8, params[0].valNum.dVal = 10.5;
    params[0].nSens = KVN_PARAM_IN;
    params[1].cType = SQL_C_LONG, params[1].nTaille = 8, params[1].valNum.lVal = 3;
    params[1].nSens = KVN_PARAM_INOUT;
    params[2].cType = SQL_C_WCHAR, params[2].bNull = 1;
    params[2].nSens = KVN_PARAM_OUT;
    ASSERT_EQ(0, cnx_->request.CreateExecStoredProc(L"kvn_tax", 3, params, 0));
    ASSERT_TRUE(cnx_->Exchange());
    EXPECT_EQ(KVN_EXECUTEPROC, cnx_->answer.GetFonction());
    ASSERT_EQ(0, LongAt(cnx_->answer, 0)) << ErrorText();
    EXPECT_EQ(6, LongAt(cnx_->answer, 1));
    EXPECT_EQ(L"price 10.5", TextAt(cnx_->answer, 2));
    EXPECT_EQ(SQL_C_WCHAR, TypeAt(cnx_->answer, 2)) << "an OUT value keeps its declared type";
}

TEST_F(ServicePostgres, SelectBlocksAndSchemaOnPostgres) {
    MustExecute(L"CREATE TABLE IF NOT EXISTS kvn_items (id integer, name varchar(20), price double precision)");
    MustExecute(L"DELETE FROM kvn_items");
    MustExecute(L"INSERT INTO kvn_items SELECT g, 'n' || g, g * 0.5 FROM generate_series(1, 9) g");
    ASSERT_TRUE(cnx_->Select(L"SELECT id, name, price FROM kvn_items ORDER BY id"));
    ASSERT_EQ(0, LongAt(cnx_->answer, 0)) << ErrorText();
    EXPECT_EQ(4, LongAt(cnx_->answer, 3));
    EXPECT_EQ(1, LongAt(cnx_->answer, 5));
    EXPECT_EQ(1, LongAt(cnx_->answer, 6));
    EXPECT_EQ(L"n1", TextAt(cnx_->answer, 7));
    EXPECT_DOUBLE_EQ(0.5, DoubleAt(cnx_->answer, 8));
    ASSERT_TRUE(cnx_->GetLine());
    EXPECT_EQ(4, LongAt(cnx_->answer, 1));
    ASSERT_TRUE(cnx_->GetLine());
    EXPECT_EQ(1, LongAt(cnx_->answer, 1));
    EXPECT_EQ(0, LongAt(cnx_->answer, 3));

    ASSERT_EQ(0, cnx_->request.CreateGetColumns(L"kvn_items"));
    ASSERT_TRUE(cnx_->Exchange());
    EXPECT_EQ(3, LongAt(cnx_->answer, 1));
    EXPECT_EQ(L"id;name;price", TextAt(cnx_->answer, 2));

    ASSERT_TRUE(cnx_->Execute(L"SELECT * FROM kvn_missing"));
    EXPECT_EQ(KVN_ERROR_ODBC, LongAt(cnx_->answer, 1));
    EXPECT_NE(std::string::npos, ErrorText().find("kvn_missing"));
}
