// The log: its threshold, the channels a line reaches, how lines are laid out
// in the request log, the rotation at start-up, and many threads logging at
// once.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "UnitUtil.h"
#include "diag/Log.h"
#include "platform/DebugOutput.h"

namespace {

namespace fs = std::filesystem;
using kvnunit::LogLine;
using kvnunit::ReadFile;
using kvnunit::WriteFile;
using Texts = std::vector<std::wstring>;

// How one chunk of a long text ends up in the request log.
std::string Chunk(const std::string& text) { return text + "\r\n\r\r\n"; }
std::wstring Wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }

class LogTest : public kvnunit::CapturedLogTest {
protected:
    void Init(int level, int rotate = 1) { InitLog(level, log_.wstring().c_str(), rotate); }

    // Runs body with the working directory in the test's own directory,
    // where the default request log would appear.
    template <typename Body>
    void InTestDirectory(Body body) {
        const fs::path previous = fs::current_path();
        fs::current_path(dir_.path);
        body();
        fs::current_path(previous);
    }

    kvnunit::TempDir dir_;
    fs::path log_ = dir_.path / "requests.log";
};

TEST_F(LogTest, TheThresholdDecidesWhichChannelsALineReaches) {
    Init(0);
    WriteLog(L"Echec de la requete", 1);
    WriteLogF(1, L"Echec %d", 2);
    EXPECT_TRUE(trace_.Get().empty());
    EXPECT_FALSE(fs::exists(log_));

    // At level 3 a level 2 line reaches the trace and the request log, a level 5 line nothing.
    Init(3);
    WriteLog(L"Echec de la requete", 2);
    WriteLog(L"SockSend, emission partielle", 5);
    EXPECT_EQ(trace_.Get(), Texts{L"Echec de la requete"});
    EXPECT_EQ(ReadFile(log_), LogLine("Echec de la requete"));
    EXPECT_TRUE(debugger_.Get().empty());

    // The debugger gets every written line, but only from level 15 on.
    InitLog(15, nullptr, 0);
    WriteLog(L"perte de communication", 4);
    WriteLog(L"Lock() ABANDON", 15);
    WriteLog(L"trop fin", 16);
    EXPECT_EQ(debugger_.Get(), (Texts{L"perte de communication", L"Lock() ABANDON"}));
    EXPECT_EQ(trace_.Get().size(), 2u);
    g_logLevel = 16;
    WriteLog(L"encore", 4);
    EXPECT_EQ(debugger_.Get().size(), 2u);
    EXPECT_EQ(trace_.Get().size(), 3u);

    // Formatted lines are built only when they pass, and kept whole.
    InitLog(4, nullptr, 0);
    WriteLogF(5, L"%ls #%d", L"Detail", 8);
    const std::wstring longText(3000, L'x');
    WriteLogF(3, L"%ls #%d", longText.c_str(), 7);
    EXPECT_EQ(trace_.Get().back(), longText + L" #7");
    EXPECT_EQ(trace_.Get().size(), 4u);
    EXPECT_EQ(GetLogLevel(), 4);
}

TEST_F(LogTest, LongTextsGoOutInChunksOf252AndAfterFreeLogOnlyTheFirstChunk) {
    Init(3);
    const std::string fits(252, 'a');
    WriteLog(Wide(fits).c_str(), 2);
    WriteLog(Wide(std::string(252, 'b') + "c").c_str(), 2);
    // Every character is kept, in UTF-8.
    WriteLog(L"D\u00e9but \u20ac \U0001F680", 2);
    const std::string expected = LogLine(fits) + Chunk(std::string(252, 'b')) + Chunk("c") +
                                 LogLine("D\xc3\xa9" "but \xe2\x82\xac \xf0\x9f\x9a\x80");
    EXPECT_EQ(ReadFile(log_), expected);

    FreeLog();
    const std::string text = std::string(252, 'a') + std::string(252, 'b') + std::string(96, 'c');
    WriteLog(Wide(text).c_str(), 2);
    WriteLog(L"toujours ecrit", 3);
    EXPECT_EQ(ReadFile(log_), expected + Chunk(std::string(252, 'a')) + LogLine("toujours ecrit"));
    // The trace channel gets the text unchanged.
    EXPECT_EQ(trace_.Get()[3], Wide(text));
}

TEST_F(LogTest, FreeLogLetsAWriteInProgressFinish) {
    Init(3);
    // A trace channel that takes its time keeps the write in progress.
    struct SlowTrace {
        std::atomic<bool> entered{false};
        static void Hook(const wchar_t*, void* context) {
            static_cast<SlowTrace*>(context)->entered = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    } slow;
    KvnSetTraceFileHook(&SlowTrace::Hook, &slow);
    std::thread writer([] { WriteLog(std::wstring(600, L'z').c_str(), 2); });
    ASSERT_TRUE(kvntest::WaitUntil([&] { return slow.entered.load(); }));
    FreeLog();
    writer.join();

    // The write began while the logging was open: all three chunks.
    const std::string z(252, 'z');
    EXPECT_EQ(ReadFile(log_), Chunk(z) + Chunk(z) + Chunk(std::string(96, 'z')));
    const auto lines = debugger_.Get();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), L"\r\n FreeLog avant IsTimeOuted   ");
}

TEST_F(LogTest, TheTraceFileKeepsTheLinesUpToLevel4WithTheirTimeBesideTheRequestLog) {
    Init(5);
    WriteLog(L"perte de communication \u20ac", 4);
    WriteLog(L"SockSend, emission partielle", 5);
    const std::string trace = ReadFile(dir_.path / "requests.log.trace");
    // "YYYY-MM-DD hh:mm:ss.mmm  " then the text, one line.
    ASSERT_EQ(trace.size(), 25u + 26u + 2u) << trace;
    EXPECT_EQ(trace[4], '-');
    EXPECT_EQ(trace[13], ':');
    EXPECT_EQ(trace[19], '.');
    EXPECT_EQ(trace.substr(23), "  perte de communication \xe2\x82\xac\r\n");
    EXPECT_EQ(ReadFile(log_), LogLine("perte de communication \xe2\x82\xac") +
                                  LogLine("SockSend, emission partielle"));
}

TEST_F(LogTest, StartingAgainKeepsThePreviousRunAsTheOnlyBackupUnlessNotRotating) {
    const fs::path backup = dir_.path / "requests.log.bak";
    const fs::path trace = dir_.path / "requests.log.trace";
    WriteFile(log_, "previous run\r\n");
    WriteFile(backup, "run before that\r\n");
    WriteFile(trace, "previous trace\r\n");
    Init(3);
    EXPECT_FALSE(fs::exists(log_));
    EXPECT_FALSE(fs::exists(trace));
    EXPECT_EQ(ReadFile(backup), "previous run\r\n");
    EXPECT_EQ(ReadFile(dir_.path / "requests.log.trace.bak"), "previous trace\r\n");
    WriteLog(L"nouvelle session", 3);
    EXPECT_EQ(ReadFile(log_), LogLine("nouvelle session"));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path), fs::directory_iterator()), 4);

    KvnResetLogForTests();
    Init(3, 0);
    WriteLog(L"suite", 3);
    EXPECT_EQ(ReadFile(log_), LogLine("nouvelle session") + LogLine("suite"));
    EXPECT_EQ(ReadFile(backup), "previous run\r\n");
    EXPECT_NE(ReadFile(trace).find("  suite\r\n"), std::string::npos);
}

TEST_F(LogTest, WithoutANameInitLogSetsTheThresholdOnlyAndRequestLinesGoToTheDefaultFile) {
    InTestDirectory([&] {
        InitLog(3, nullptr, 1);
        EXPECT_EQ(GetLogLevel(), 3);
        WriteLog(L"sans fichier", 2);
        InitLog(2, L"", 1);
        EXPECT_EQ(GetLogLevel(), 2);
        WriteLog(L"toujours sans fichier", 2);
        EXPECT_TRUE(fs::is_empty(dir_.path));

        // The default file is rotated once, at its first line.
        WriteFile("KORVNE Request.log", "old\r\n");
        WriteRequestLog(L"premiere");
        WriteRequestLog(L"seconde");
    });
    EXPECT_EQ(trace_.Get().size(), 2u);
    EXPECT_EQ(ReadFile(dir_.path / "KORVNE Request.log.bak"), "old\r\n");
    EXPECT_EQ(ReadFile(dir_.path / "KORVNE Request.log"), "premiere\r\nseconde\r\n");
}

TEST_F(LogTest, ManyThreadsLoggingAtOnceKeepEveryLineWhole) {
    Init(3);
    const int kThreads = 4, kLines = 200;
    std::vector<std::thread> threads;
    std::set<std::string> expected;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) WriteLogF(2, L"thread %d ligne %d", t, i);
        });
        for (int i = 0; i < kLines; ++i)
            expected.insert(LogLine("thread " + std::to_string(t) + " ligne " + std::to_string(i)));
    }
    for (auto& thread : threads) thread.join();

    const std::string content = ReadFile(log_);
    const std::string end = "\r\n\r\r\n";
    std::set<std::string> found;
    for (size_t pos = 0; pos < content.size();) {
        const size_t next = content.find(end, pos) + end.size();
        ASSERT_GE(next, end.size()) << "a line without its end";
        found.insert(content.substr(pos, next - pos));
        pos = next;
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(trace_.Get().size(), static_cast<size_t>(kThreads * kLines));
}

}  // namespace
