// The service's log on the standard error stream or in its file.
#include "ServiceLog.h"

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

namespace {

std::atomic<int> g_level{1};
// One line at a time, so that lines of different sessions never mix; also
// guards the file members.
std::mutex g_writeLock;
std::FILE* g_file = nullptr;  // null: standard error
std::string g_path;

const char* LevelName(int level) {
    switch (level) {
    case kLogWarning: return "warning";
    case 0: return "error";
    case 1: return "info";
    case 2: return "request";
    default: return "detail";
    }
}

}  // namespace

void SetServiceLogLevel(int level) { g_level.store(level); }

bool SetServiceLogFile(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "a");
    if (!f) return false;
    std::lock_guard<std::mutex> lock(g_writeLock);
    if (g_file) std::fclose(g_file);
    g_file = f;
    g_path = path;
    return true;
}

bool ReopenServiceLog() {
    std::lock_guard<std::mutex> lock(g_writeLock);
    if (!g_file) return true;
    std::FILE* f = std::fopen(g_path.c_str(), "a");
    if (!f) return false;
    std::fclose(g_file);
    g_file = f;
    return true;
}

int ServiceLogLevel() { return g_level.load(); }

void ServiceLog(int level, const char* format, ...) {
    if (level > g_level.load()) return;
    char text[2048];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);

    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const long millis = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &utc);

    std::lock_guard<std::mutex> lock(g_writeLock);
    std::FILE* out = g_file ? g_file : stderr;
    std::fprintf(out, "%s.%03ld korvaned %s: %s\n", stamp, millis, LevelName(level), text);
    std::fflush(out);
}
