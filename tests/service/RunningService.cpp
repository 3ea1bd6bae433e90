// Starting and stopping the programs of the tests.
#include "RunningService.h"

#include <filesystem>
#include <fstream>
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

std::string RunningService::Log() const {
    std::ifstream in(dir_.File("korvaned.log"));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
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

}  // namespace

PostgresServer::PostgresServer() {
    std::string driver;
    for (const char* place : {"/usr/lib/x86_64-linux-gnu/odbc/psqlodbcw.so", "/usr/lib/aarch64-linux-gnu/odbc/psqlodbcw.so",
                              "/usr/lib/x86_64-linux-gnu/odbc/psqlodbca.so", "/usr/lib/aarch64-linux-gnu/odbc/psqlodbca.so",
                              "/usr/lib/odbc/psqlodbca.so", "/usr/lib64/psqlodbca.so"}) {
        if (driver.empty() && std::ifstream(place).good()) driver = place;
    }
    if (driver.empty()) {
        skipReason = "the PostgreSQL ODBC driver is not installed (odbc-postgresql)";
        return;
    }
    const unsigned short port = FreeTcpPort();
    const int code = RunPostgresScript({dir.File("pg"), std::to_string(port)}, 120000);
    if (code != 0) {
        skipReason = "PostgreSQL is not installed (postgresql)";
        // Installed but not starting is a fault of the tests' setup, not a reason to skip.
        EXPECT_EQ(77, code) << "start-postgres.sh could not start PostgreSQL";
        return;
    }
    connection = "DRIVER=" + driver + ";Servername=127.0.0.1;Port=" + std::to_string(port) +
                 ";Database=korvane;Username=postgres;Password=;";
}

PostgresServer::~PostgresServer() {
    if (!connection.empty()) RunPostgresScript({"--stop", dir.File("pg")}, 60000);
}
