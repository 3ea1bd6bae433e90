// Starting and stopping the service for a test.
#include "RunningService.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/Threads.h"
#include "support/TestUtil.h"

namespace fs = std::filesystem;

TempDir::TempDir() {
    std::random_device random;
    for (int attempt = 0; attempt < 100 && path_.empty(); ++attempt) {
        const fs::path candidate =
            fs::temp_directory_path() / ("kvn-service-" + std::to_string(random()) + std::to_string(attempt));
        std::error_code error;
        if (fs::create_directory(candidate, error)) path_ = candidate.string();
    }
    EXPECT_FALSE(path_.empty()) << "no temporary directory";
}

TempDir::~TempDir() {
    std::error_code error;
    if (!path_.empty()) fs::remove_all(path_, error);
}

unsigned short WaitForPortFile(const std::string& path, int timeoutMs) {
    const auto start = kvntest::Clock::now();
    while (kvntest::MsSince(start) < timeoutMs) {
        std::ifstream in(path);
        unsigned port = 0;
        if (in >> port && port > 0 && port < 65536) return static_cast<unsigned short>(port);
        // The service writes the file once it listens, within milliseconds.
        KvnSleep(10);
    }
    return 0;
}

RunningService::RunningService(const std::vector<std::string>& arguments) : process_(0), port_(0) {
    std::vector<std::string> args = {KVN_KORVANED_PATH, "--port", "0", "--port-file", dir_.File("port"),
                                     "--database", dir_.File("test.db"), "--hb-mode", "unicast",
                                     "--hb-port", "9", "--log-level", "2"};
    args.insert(args.end(), arguments.begin(), arguments.end());
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    process_ = KvnStartProcess(KVN_KORVANED_PATH, argv.data(), dir_.File("korvaned.log").c_str(), TRUE);
    EXPECT_NE(0, process_) << "cannot start " << KVN_KORVANED_PATH;
    if (process_ == 0) return;
    port_ = WaitForPortFile(dir_.File("port"), 10000);
    EXPECT_NE(0, port_) << "korvaned did not come up:\n" << Log();
}

RunningService::~RunningService() {
    if (process_ != 0) {
        KvnTerminateProcess(process_);
        int code = 0;
        if (KvnWaitProcess(process_, 10000, &code) != 1) ADD_FAILURE() << "korvaned did not stop";
    }
    if (::testing::Test::HasFailure()) std::printf("---- korvaned's log ----\n%s------\n", Log().c_str());
}

bool RunningService::Running() {
    int code = 0;
    if (process_ == 0) return false;
    if (KvnWaitProcess(process_, 0, &code) == 0) return true;
    process_ = 0;
    return false;
}

std::string RunningService::Log() const {
    std::ifstream in(dir_.File("korvaned.log"));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}
