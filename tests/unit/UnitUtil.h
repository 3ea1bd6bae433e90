// Helpers shared by the unit tests: texts captured from a log or debugger
// hook (and a fixture capturing both), a scratch folder with whole-file reads, bounded polling, a loopback
// port on which nothing listens, and a sample GUID.
#ifndef KVN_TESTS_UNIT_UNITUTIL_H
#define KVN_TESTS_UNIT_UNITUTIL_H

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestUtil.h"
#include "diag/Log.h"
#include "platform/DebugOutput.h"
#include "platform/Sockets.h"

namespace kvnunit {

namespace fs = std::filesystem;
using kvntest::Clock;
using kvntest::MsSince;

// Texts handed to a hook, in order, from any thread.
struct Captured {
    std::mutex lock;
    std::vector<std::wstring> texts;

    static void Hook(const wchar_t* text, void* context) {
        Captured* self = static_cast<Captured*>(context);
        std::lock_guard<std::mutex> guard(self->lock);
        self->texts.push_back(text);
    }
    std::vector<std::wstring> Get() {
        std::lock_guard<std::mutex> guard(lock);
        return texts;
    }
    std::vector<std::wstring> Containing(const wchar_t* part) {
        std::vector<std::wstring> found;
        for (const auto& t : Get())
            if (t.find(part) != std::wstring::npos) found.push_back(t);
        return found;
    }
};

// A fixture whose logging starts afresh, with the trace channel and the
// debugger output captured.
class CapturedLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        KvnResetLogForTests();
        KvnSetTraceFileHook(&Captured::Hook, &trace_);
        KvnSetDebugOutputHook(&Captured::Hook, &debugger_);
    }
    void TearDown() override {
        KvnSetTraceFileHook(nullptr, nullptr);
        KvnSetDebugOutputHook(nullptr, nullptr);
        KvnResetLogForTests();
    }
    Captured trace_;
    Captured debugger_;
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

// Polls cond every millisecond for at most 5 s.
template <typename Cond>
bool WaitFor(Cond cond) {
    for (int i = 0; i < 5000 && !cond(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return cond();
}

// A port on which nothing listens any more.
inline unsigned short ClosedPort() {
    SOCKET listening = KvnTcpListen(KvnLoopbackAddress(), 0, 1);
    unsigned short port = KvnGetLocalPort(listening);
    KvnCloseSocket(listening);
    return port;
}

inline GUID SampleGuid() {
    return GUID{0x12345678, 0x9ABC, 0xDEF0, {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7}};
}
inline bool SameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace kvnunit

#endif
