// The smaller services of the platform layer: the debugger output as the
// tests' hook receives it, the computer name (and its forced failure), and
// files named by wide text outside ASCII.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/DebugOutput.h"
#include "platform/Files.h"
#include "platform/SystemInfo.h"

namespace {

// ---- Debugger output ----------------------------------------------------------------

struct Captured {
    std::mutex lock;
    std::vector<std::wstring> lines;
};

void Capture(const wchar_t* text, void* context) {
    Captured* captured = static_cast<Captured*>(context);
    std::lock_guard<std::mutex> guard(captured->lock);
    captured->lines.push_back(text);
}

TEST(PlatformDebugOutput, TheHookReceivesEveryLineUnchangedFromEveryThread) {
    Captured captured;
    KvnSetDebugOutputHook(&Capture, &captured);
    KvnDebugOutput(L"\r\nline \u00e9t\u00e9 ");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 50; ++i) KvnDebugOutput(L"from a thread");
        });
    }
    for (std::thread& t : threads) t.join();
    KvnSetDebugOutputHook(nullptr, nullptr);
    KvnDebugOutput(L"after the hook was removed");

    // Lines of other threads still running in the process may show up too.
    int fromThreads = 0;
    bool first = false;
    for (const std::wstring& line : captured.lines) {
        if (line == L"from a thread") ++fromThreads;
        if (line == L"\r\nline \u00e9t\u00e9 ") first = true;
        EXPECT_NE(line, L"after the hook was removed");
    }
    EXPECT_TRUE(first);
    EXPECT_EQ(fromThreads, 200);
}

// ---- Computer name -------------------------------------------------------------------

TEST(PlatformComputerName, TheNameFitsItsBufferAndAForcedFailureIsReported) {
    wchar_t name[256];
    DWORD size = 256;
    ASSERT_TRUE(KvnGetComputerName(name, &size));
    EXPECT_GT(size, 0u);
    EXPECT_EQ(std::wstring(name).size(), size);

    DWORD tooSmall = 1;
    EXPECT_FALSE(KvnGetComputerName(name, &tooSmall));

    KvnSetComputerNameFailure(TRUE);
    size = 256;
    EXPECT_FALSE(KvnGetComputerName(name, &size));
    KvnSetComputerNameFailure(FALSE);
    size = 256;
    EXPECT_TRUE(KvnGetComputerName(name, &size));
}

// ---- Files --------------------------------------------------------------------------

TEST(PlatformFiles, AFileNamedOutsideAsciiIsWrittenRenamedReadAndRemoved) {
    namespace fs = std::filesystem;
    const std::wstring dir = fs::temp_directory_path().wstring();
    const std::wstring name = dir + L"/kvn_\u00e9t\u00e9_\u6f22.log";
    const std::wstring renamed = name + L".bak";
    KvnRemoveFile(name.c_str());
    KvnRemoveFile(renamed.c_str());

    std::FILE* f = KvnOpenFile(name.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("journal", f);
    std::fclose(f);
    EXPECT_EQ(KvnRenameFile(name.c_str(), renamed.c_str()), 0);
    EXPECT_EQ(KvnOpenFile(name.c_str(), "r"), nullptr);

    f = KvnOpenFile(renamed.c_str(), "r");
    ASSERT_NE(f, nullptr);
    char buffer[16] = {};
    EXPECT_EQ(std::fread(buffer, 1, sizeof buffer - 1, f), 7u);
    std::fclose(f);
    EXPECT_STREQ(buffer, "journal");

    EXPECT_EQ(KvnRemoveFile(renamed.c_str()), 0);
    EXPECT_NE(KvnRemoveFile(renamed.c_str()), 0);
    EXPECT_EQ(KvnOpenFile(nullptr, "r"), nullptr);
}

}  // namespace
