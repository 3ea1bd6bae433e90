// The log: its threshold, the channels a line reaches, how lines are laid out
// in the request log, the rotation at start-up, and many threads logging at
// once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "diag/Log.h"
#include "platform/DebugOutput.h"

namespace fs = std::filesystem;

namespace {

// Texts handed to a channel, in order.
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
};

fs::path MakeTempDir() {
    static std::atomic<int> counter{0};
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    fs::path dir = fs::temp_directory_path() /
                   ("kvn_log_" + std::to_string(stamp) + "_" + std::to_string(counter++));
    fs::create_directories(dir);
    return dir;
}

std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void WriteFile(const fs::path& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
}

// How one short logged line ends up in the request log.
std::string ShortLine(const std::string& text) { return " " + text + "\r\n\r\r\n"; }
// How one chunk of a long text ends up there.
std::string Chunk(const std::string& text) { return text + "\r\n\r\r\n"; }

std::wstring Wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }

class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        KvnResetLogForTests();
        dir_ = MakeTempDir();
        log_ = dir_ / "requests.log";
        KvnSetTraceFileHook(&Captured::Hook, &trace_);
        KvnSetDebugOutputHook(&Captured::Hook, &debugger_);
    }
    void TearDown() override {
        KvnSetTraceFileHook(nullptr, nullptr);
        KvnSetDebugOutputHook(nullptr, nullptr);
        KvnResetLogForTests();
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }

    // Runs body with the working directory in the test's own directory,
    // where the default request log would appear.
    template <typename Body>
    void InTestDirectory(Body body) {
        const fs::path previous = fs::current_path();
        fs::current_path(dir_);
        body();
        fs::current_path(previous);
    }

    fs::path dir_;
    fs::path log_;
    Captured trace_;
    Captured debugger_;
};

TEST_F(LogTest, LevelZeroWritesNothingAnywhere) {
    InitLog(0, log_.wstring().c_str(), 1);
    WriteLog(L"Echec de la requete", 1);
    WriteLogF(1, L"Echec %d", 2);

    EXPECT_TRUE(trace_.Get().empty());
    EXPECT_TRUE(debugger_.Get().empty());
    EXPECT_FALSE(fs::exists(log_));
}

TEST_F(LogTest, AtLevelThreeALevelTwoLineReachesTraceAndRequestLogAndALevelFiveLineNothing) {
    InitLog(3, log_.wstring().c_str(), 1);
    WriteLog(L"Echec de la requete", 2);
    WriteLog(L"SockSend, emission partielle", 5);

    EXPECT_EQ(trace_.Get(), std::vector<std::wstring>{L"Echec de la requete"});
    EXPECT_TRUE(debugger_.Get().empty());
    EXPECT_EQ(ReadFile(log_), ShortLine("Echec de la requete"));
}

TEST_F(LogTest, TheDebuggerGetsEveryWrittenLineOnlyAtLevelFifteen) {
    InitLog(15, nullptr, 0);
    WriteLog(L"perte de communication", 4);
    WriteLog(L"Lock() ABANDON", 15);
    WriteLog(L"trop fin", 16);
    EXPECT_EQ(debugger_.Get(), (std::vector<std::wstring>{L"perte de communication", L"Lock() ABANDON"}));
    EXPECT_EQ(trace_.Get(), std::vector<std::wstring>{L"perte de communication"});

    g_logLevel = 16;
    WriteLog(L"encore", 4);
    EXPECT_EQ(debugger_.Get().size(), 2u);
    EXPECT_EQ(trace_.Get().size(), 2u);
}

TEST_F(LogTest, FormattedLinesAreBuiltOnlyWhenTheyPassAndKeptWhole) {
    InitLog(4, nullptr, 0);
    WriteLogF(4, L"%ls #%d", L"Connexion", 7);
    WriteLogF(5, L"%ls #%d", L"Detail", 8);
    const std::wstring longText(3000, L'x');
    WriteLogF(3, L"%ls", longText.c_str());

    EXPECT_EQ(trace_.Get(), (std::vector<std::wstring>{L"Connexion #7", longText}));
    EXPECT_EQ(GetLogLevel(), 4);
}

TEST_F(LogTest, ShortTextsAreOneLineAndLongOnesGoOutInChunksOf252) {
    InitLog(3, log_.wstring().c_str(), 1);
    const std::string fits(252, 'a');
    const std::string tooLong = std::string(252, 'b') + "c";
    WriteLog(Wide(fits).c_str(), 2);
    WriteLog(Wide(tooLong).c_str(), 2);
    // Characters are written as single bytes; those beyond one byte as '?'.
    WriteLog(L"D\u00e9but \u20ac", 2);

    EXPECT_EQ(ReadFile(log_), ShortLine(fits) + Chunk(std::string(252, 'b')) + Chunk("c") +
                                  ShortLine("D\xe9" "but ?"));
}

TEST_F(LogTest, AfterFreeLogALongTextKeepsOnlyItsFirstChunk) {
    InitLog(3, log_.wstring().c_str(), 1);
    FreeLog();
    const std::string text = std::string(252, 'a') + std::string(252, 'b') + std::string(96, 'c');
    WriteLog(Wide(text).c_str(), 2);
    WriteLog(L"toujours ecrit", 3);

    EXPECT_EQ(ReadFile(log_), Chunk(std::string(252, 'a')) + ShortLine("toujours ecrit"));
    // The trace channel gets the text unchanged.
    EXPECT_EQ(trace_.Get().front(), Wide(text));
}

TEST_F(LogTest, FreeLogLetsAWriteInProgressFinish) {
    InitLog(3, log_.wstring().c_str(), 1);
    // A trace channel that takes its time keeps the write in progress.
    struct SlowTrace {
        std::atomic<bool> entered{false};
        static void Hook(const wchar_t*, void* context) {
            static_cast<SlowTrace*>(context)->entered = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    } slow;
    KvnSetTraceFileHook(&SlowTrace::Hook, &slow);
    const std::string text(600, 'z');
    std::thread writer([&] { WriteLog(Wide(text).c_str(), 2); });
    for (int i = 0; i < 5000 && !slow.entered; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_TRUE(slow.entered);

    FreeLog();
    writer.join();

    // The write began while the logging was open: all three chunks.
    EXPECT_EQ(ReadFile(log_),
              Chunk(std::string(252, 'z')) + Chunk(std::string(252, 'z')) + Chunk(std::string(96, 'z')));
    const auto lines = debugger_.Get();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), L"\r\n FreeLog avant IsTimeOuted   ");
}

TEST_F(LogTest, StartingAgainKeepsThePreviousRunAsTheOnlyBackup) {
    const fs::path backup = dir_ / "requests.log.bak";
    WriteFile(log_, "previous run\r\n");
    WriteFile(backup, "run before that\r\n");

    InitLog(3, log_.wstring().c_str(), 1);
    EXPECT_FALSE(fs::exists(log_));
    EXPECT_EQ(ReadFile(backup), "previous run\r\n");

    WriteLog(L"nouvelle session", 3);
    EXPECT_EQ(ReadFile(log_), ShortLine("nouvelle session"));
    int files = 0;
    for (const auto& entry : fs::directory_iterator(dir_)) {
        (void)entry;
        ++files;
    }
    EXPECT_EQ(files, 2);
}

TEST_F(LogTest, WithoutRotationTheLogIsContinued) {
    WriteFile(log_, "previous run\r\n");
    InitLog(3, log_.wstring().c_str(), 0);
    WriteLog(L"suite", 3);
    EXPECT_EQ(ReadFile(log_), "previous run\r\n" + ShortLine("suite"));
    EXPECT_FALSE(fs::exists(dir_ / "requests.log.bak"));
}

TEST_F(LogTest, InitLogWithoutANameSetsTheThresholdOnly) {
    InTestDirectory([&] {
        InitLog(3, nullptr, 1);
        EXPECT_EQ(GetLogLevel(), 3);
        WriteLog(L"sans fichier", 2);
        InitLog(2, L"", 1);
        EXPECT_EQ(GetLogLevel(), 2);
        WriteLog(L"toujours sans fichier", 2);
    });
    EXPECT_EQ(trace_.Get().size(), 2u);
    EXPECT_TRUE(fs::is_empty(dir_));
}

TEST_F(LogTest, ARequestLogLineWithoutANameGoesToTheDefaultFileRotatedOnce) {
    InTestDirectory([&] {
        WriteFile("KORVNE Request.log", "old\r\n");
        WriteRequestLog(L"premiere");
        WriteRequestLog(L"seconde");
    });
    EXPECT_EQ(ReadFile(dir_ / "KORVNE Request.log.bak"), "old\r\n");
    EXPECT_EQ(ReadFile(dir_ / "KORVNE Request.log"), "premiere\r\nseconde\r\n");
}

TEST_F(LogTest, ManyThreadsLoggingAtOnceKeepEveryLineWhole) {
    InitLog(3, log_.wstring().c_str(), 1);
    const int kThreads = 4;
    const int kLines = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) WriteLogF(2, L"thread %d ligne %d", t, i);
        });
    }
    for (auto& thread : threads) thread.join();

    std::set<std::string> expected;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kLines; ++i) {
            expected.insert(ShortLine("thread " + std::to_string(t) + " ligne " + std::to_string(i)));
        }
    }
    const std::string content = ReadFile(log_);
    std::set<std::string> found;
    const std::string end = "\r\n\r\r\n";
    for (size_t pos = 0; pos < content.size();) {
        size_t next = content.find(end, pos);
        ASSERT_NE(next, std::string::npos);
        found.insert(content.substr(pos, next + end.size() - pos));
        pos = next + end.size();
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(trace_.Get().size(), static_cast<size_t>(kThreads * kLines));
}

}  // namespace
