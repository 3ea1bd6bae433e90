// Helpers shared by the unit tests: a fixture capturing the trace channel
// and the debugger output, a scratch folder with whole-file reads, and a
// sample GUID.
#ifndef KVN_TESTS_UNIT_UNITUTIL_H
#define KVN_TESTS_UNIT_UNITUTIL_H

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/TestUtil.h"
#include "diag/Log.h"
#include "platform/DebugOutput.h"

namespace kvnunit {

namespace fs = std::filesystem;
using kvntest::Clock;
using kvntest::MsSince;

// A fixture whose logging starts afresh, with the trace channel and the
// debugger output captured.
class CapturedLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        KvnResetLogForTests();
        KvnSetTraceFileHook(&kvntest::CapturedTexts::Hook, &trace_);
        KvnSetDebugOutputHook(&kvntest::CapturedTexts::Hook, &debugger_);
    }
    void TearDown() override {
        KvnSetTraceFileHook(nullptr, nullptr);
        KvnSetDebugOutputHook(nullptr, nullptr);
        KvnResetLogForTests();
    }
    kvntest::CapturedTexts trace_;
    kvntest::CapturedTexts debugger_;
};

// A folder of the test's own in the temporary folder, removed at the end.
struct TempDir {
    fs::path path;
    TempDir() {
        static std::atomic<int> counter{0};
        path = fs::temp_directory_path() /
               ("kvn_unit_" + std::to_string(Clock::now().time_since_epoch().count()) + "_" +
                std::to_string(counter++));
        fs::create_directories(path);
    }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
};

inline std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

inline void WriteFile(const fs::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

// How one short logged line ends up in the request log.
inline std::string LogLine(const std::string& text) { return " " + text + "\r\n\r\r\n"; }

inline GUID SampleGuid() {
    return GUID{0x12345678, 0x9ABC, 0xDEF0, {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7}};
}
inline bool SameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace kvnunit

#endif
