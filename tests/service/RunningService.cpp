// Starting and stopping the programs of the tests.
#include "RunningService.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/Sockets.h"
#include "platform/Threads.h"
#include "support/TestUtil.h"

namespace fs = std::filesystem;

TempDir::TempDir() {
    std::random_device random;
    const fs::path candidate = fs::temp_directory_path() /
                               ("kvn-service-" + std::to_string(random()) + "-" + std::to_string(random()));
    std::error_code error;
    if (fs::create_directory(candidate, error)) path_ = candidate.string();
    EXPECT_FALSE(path_.empty()) << "no temporary directory";
}

TempDir::~TempDir() {
    std::error_code error;
    if (!path_.empty()) fs::remove_all(path_, error);
}

unsigned short FreeTcpPort() {
    SOCKET s = KvnTcpListen(KvnLoopbackAddress(), 0, 1);
    if (s == INVALID_SOCKET) return 0;
    const unsigned short port = KvnGetLocalPort(s);
    KvnCloseSocket(s);
    return port;
}

KvnProcess StartProgram(const std::vector<std::string>& args, const std::string& logFile) {
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    const KvnProcess p = KvnStartProcess(argv[0], argv.data(), logFile.empty() ? nullptr : logFile.c_str(), TRUE);
    EXPECT_NE(0, p) << "cannot start " << args[0];
    return p;
}

int Shell(const std::string& line) {
    const KvnProcess p = StartProgram({"/bin/sh", "-c", line}, "");
    int code = -1;
    if (p != 0 && KvnWaitProcess(p, 20000, &code) != 1) ADD_FAILURE() << "still running: " << line;
    return code;
}

unsigned short WaitForPortFile(const std::string& path, int timeoutMs) {
    const auto start = kvntest::Clock::now();
    while (kvntest::MsSince(start) < timeoutMs) {
        std::ifstream in(path);
        unsigned port = 0;
        if (in >> port && port > 0 && port < 65536) return static_cast<unsigned short>(port);
        // The program writes the file once it listens, within milliseconds.
        KvnSleep(10);
    }
    return 0;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool WaitForText(const std::string& path, const std::string& part, int timeoutMs) {
    const auto start = kvntest::Clock::now();
    // A log is a file: nothing to wait on but time.
    while (!Contains(ReadFile(path), part)) {
        if (kvntest::MsSince(start) > timeoutMs) {
            ADD_FAILURE() << "'" << part << "' did not come in " << path << ":\n" << ReadFile(path);
            return false;
        }
        KvnSleep(20);
    }
    return true;
}

std::vector<std::string> ServiceArguments(int blockRows, const std::vector<std::string>& more) {
    std::vector<std::string> args = {"--block-rows", std::to_string(blockRows), "--hb-mode", "unicast",
                                     "--hb-address", "127.0.0.1", "--hb-port", std::to_string(FreeUdpPort()),
                                     "--hb-period", "250", "--hb-count", "20"};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

RunningService::RunningService(const std::vector<std::string>& arguments) : process_(0), port_(0) {
    std::vector<std::string> args = {KVN_KORVANED_PATH, "--port", "0", "--port-file", dir_.File("port"),
                                     "--database", dir_.File("test.db"), "--hb-mode", "unicast",
                                     "--hb-port", "9", "--log-level", "2"};
    args.insert(args.end(), arguments.begin(), arguments.end());
    process_ = StartProgram(args, dir_.File("korvaned.log"));
    if (process_ == 0) return;
    port_ = WaitForPortFile(dir_.File("port"), 10000);
    EXPECT_NE(0, port_) << "korvaned did not come up:\n" << Log();
}

RunningService::~RunningService() {
    if (process_ != 0) {
        KvnTerminateProcess(process_);
        int code = -1;
        if (KvnWaitProcess(process_, 20000, &code) != 1) ADD_FAILURE() << "korvaned did not stop";
        else EXPECT_EQ(0, code) << "korvaned's exit code at SIGTERM";
    }
    if (::testing::Test::HasFailure()) std::printf("---- korvaned's log ----\n%s------\n", Log().c_str());
}

bool RunningService::Running() {
    if (process_ == 0) return false;
    if (KvnWaitProcess(process_, 0, nullptr) == 0) return true;
    process_ = 0;
    return false;
}

void RunningService::Signal(const char* name) {
    const KvnProcess kill = StartProgram({"/bin/kill", std::string("-") + name, std::to_string(process_)}, "");
    EXPECT_EQ(1, KvnWaitProcess(kill, 10000, nullptr));
}

int RunningService::WaitForExit(DWORD timeoutMs) {
    int code = -1;
    if (process_ == 0 || KvnWaitProcess(process_, timeoutMs, &code) != 1) return -1;
    process_ = 0;
    return code;
}

namespace {

// Runs start-postgres.sh with its arguments: its exit code, or -1.
int RunPostgresScript(const std::vector<std::string>& arguments, DWORD timeoutMs) {
    std::vector<std::string> args = {"/bin/bash", std::string(KVN_SERVICE_TEST_DIR) + "/start-postgres.sh"};
    args.insert(args.end(), arguments.begin(), arguments.end());
    const KvnProcess p = StartProgram(args, "");
    int code = -1;
    if (p != 0 && KvnWaitProcess(p, timeoutMs, &code) != 1) {
        KvnTerminateProcess(p);
        KvnWaitProcess(p, INFINITE, &code);
        return -1;
    }
    return code;
}

// The server this program started itself, stopped once every test ran.
class OwnPostgres : public ::testing::Environment {
public:
    std::unique_ptr<TempDir> dir;
    void TearDown() override {
        if (dir) RunPostgresScript({"--stop", dir->File("pg")}, 60000);
        dir.reset();
    }
};
OwnPostgres* const g_ownPostgres = static_cast<OwnPostgres*>(::testing::AddGlobalTestEnvironment(new OwnPostgres));

PostgresServer StartPostgres() {
    PostgresServer server;
    std::string driver;
    for (const char* place : {"/usr/lib/x86_64-linux-gnu/odbc/psqlodbcw.so", "/usr/lib/aarch64-linux-gnu/odbc/psqlodbcw.so",
                              "/usr/lib/x86_64-linux-gnu/odbc/psqlodbca.so", "/usr/lib/aarch64-linux-gnu/odbc/psqlodbca.so",
                              "/usr/lib/odbc/psqlodbca.so", "/usr/lib64/psqlodbca.so"}) {
        if (driver.empty() && std::ifstream(place).good()) driver = place;
    }
    if (driver.empty()) {
        server.skipReason = "the PostgreSQL ODBC driver is not installed (odbc-postgresql)";
        return server;
    }
    unsigned port = 0;
    const char* shared = std::getenv("KVN_TEST_POSTGRES");
    if (shared == nullptr || !(std::ifstream(shared) >> port)) {
        g_ownPostgres->dir = std::make_unique<TempDir>();
        port = FreeTcpPort();
        const int code = RunPostgresScript({g_ownPostgres->dir->File("pg"), std::to_string(port)}, 120000);
        if (code != 0) {
            server.skipReason = "PostgreSQL is not installed (postgresql)";
            // Installed but not starting is a fault of the tests' setup, not a reason to skip.
            EXPECT_EQ(77, code) << "start-postgres.sh could not start PostgreSQL";
            return server;
        }
    }
    server.connection = "DRIVER=" + driver + ";Servername=127.0.0.1;Port=" + std::to_string(port) +
                        ";Database=korvane;Username=postgres;Password=;";
    return server;
}

}  // namespace

PostgresServer& SharedPostgres() {
    static PostgresServer server = StartPostgres();
    return server;
}
