// The log: the threshold, the three channels a written line reaches, and the
// request-log file with its start-up rotation.
//
// Not for formatting the library's own lines (each caller builds its text) nor
// for the debugger output as such (platform/DebugOutput.h).
#include "diag/Log.h"

#include <korvane/platform/DStr.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <mutex>

#include "platform/DateTime.h"
#include "platform/DebugOutput.h"
#include "platform/Files.h"
#include "platform/Threads.h"
#include "platform/Utf8.h"

std::atomic<int> g_logLevel{0};

namespace {

// The request-log name and its backup name each fit here, terminator
// included, which leaves 251 characters for the name itself.
const size_t kLogPathLen = 256;
const size_t kMaxLogNameLen = kLogPathLen - 1 - 4;  // room for ".bak"

// A text shorter than this is one line; a longer one goes out in chunks.
const size_t kChunkLen = 252;

// How long FreeLog lets a write in progress finish before closing anyway.
const DWORD kFreeLogWaitMs = 4000;

const wchar_t kDefaultRequestLog[] = L"KORVNE Request.log";

// Flags read by every writing thread without a lock.
std::atomic<int> g_bRequestLog{0};
std::atomic<int> g_bLogClosed{1};
// Set and cleared by any writer: not a counter, it only lets FreeLog wait
// for a write in progress.
std::atomic<int> g_bLogBusy{0};

// The trace file of the lines of levels 1 to 4, beside the request log: its
// name is the request log's with this suffix.
const wchar_t kTraceSuffix[] = L".trace";
const size_t kTracePathLen = kLogPathLen + 6;

// The names of the request log and of the trace file, and whether they were
// set. Guarded by g_logFilesLock, which is also held across each append and
// across the rotation: a line is never split by another thread's line, and
// InitLog never renames a file under a writer. Nothing under this lock logs
// or takes another lock.
std::mutex g_logFilesLock;
wchar_t g_szRequestLogPath[kLogPathLen] = L"";
wchar_t g_szTracePath[kTracePathLen] = L"";
int g_bRequestLogOpened = 0;

// The test hook of the trace channel; calls are made under its lock so that
// once the hook is removed, no call to it is still running.
std::mutex g_traceHookLock;
std::atomic<bool> g_traceHookSet{false};
KvnTraceFileHook g_traceHook = nullptr;
void* g_traceHookContext = nullptr;

// Formats into `stack` when it fits, otherwise into a heap buffer that the
// caller frees (the returned pointer differs from `stack`). Null when the
// format cannot be rendered or memory runs out.
wchar_t* FormatV(wchar_t* stack, size_t stackLen, const wchar_t* format, va_list args) {
    if (!format) return nullptr;
    va_list copy;
    va_copy(copy, args);
    int n = std::vswprintf(stack, stackLen, format, copy);
    va_end(copy);
    if (n >= 0 && static_cast<size_t>(n) < stackLen) return stack;
    // vswprintf says "too small" and "cannot render" alike; grow up to a
    // limit that tells the two apart.
    const size_t kMaxLen = 16u * 1024u * 1024u;
    for (size_t len = stackLen * 8; len <= kMaxLen; len *= 8) {
        wchar_t* heap = static_cast<wchar_t*>(std::malloc(len * sizeof(wchar_t)));
        if (!heap) return nullptr;
        va_copy(copy, args);
        n = std::vswprintf(heap, len, format, copy);
        va_end(copy);
        if (n >= 0 && static_cast<size_t>(n) < len) return heap;
        std::free(heap);
    }
    return nullptr;
}

void FreeFormatted(wchar_t* text, const wchar_t* stack) {
    if (text != stack) std::free(text);
}

// The bytes of one appended line: the line and its "\n", every character in
// UTF-8 and every "\n" written as "\r\n" (the line ends of a text-mode
// write on Windows), in binary mode so that the file is byte-identical on
// every platform.
void AppendLine(std::FILE* f, const wchar_t* line) {
    char buffer[512];
    size_t used = 0;
    auto put = [&](const char* bytes, int n) {
        if (used + static_cast<size_t>(n) > sizeof buffer) {
            std::fwrite(buffer, 1, used, f);
            used = 0;
        }
        std::memcpy(buffer + used, bytes, static_cast<size_t>(n));
        used += static_cast<size_t>(n);
    };
    for (const wchar_t* p = line; *p;) {
        if (*p == L'\n') {
            put("\r\n", 2);
            ++p;
            continue;
        }
        int taken = 0;
        char bytes[4];
        put(bytes, KvnEncodeUtf8(KvnNextCodePoint(p, &taken), bytes));
        p += taken;
    }
    put("\r\n", 2);
    std::fwrite(buffer, 1, used, f);
}

// Appends line to the file at path; a file that cannot be opened is skipped.
// Opened and closed for every line, so that the file can be read, moved or
// deleted at any time while the application runs.
void AppendToFile(const wchar_t* path, const wchar_t* line) {
    std::FILE* f = KvnOpenFile(path, "ab");
    if (!f) return;
    AppendLine(f, line);
    std::fclose(f);
}

bool FileExists(const wchar_t* path) {
    std::FILE* f = KvnOpenFile(path, "r");
    if (!f) return false;
    std::fclose(f);
    return true;
}

// The previous run's file becomes the backup; the backup before it is lost.
// Failures leave the caller unaffected.
void Rotate(const wchar_t* fileName) {
    wchar_t backup[kTracePathLen + 4];
    std::swprintf(backup, sizeof backup / sizeof backup[0], L"%ls.bak", fileName);
    if (FileExists(backup)) KvnRemoveFile(backup);
    if (FileExists(fileName)) KvnRenameFile(fileName, backup);
}

// OpenRequestLog with g_logFilesLock held. The trace file follows the
// request log: same place, same rotation.
void OpenRequestLogLocked(const wchar_t* fileName, int rotate) {
    g_szTracePath[0] = L'\0';
    if (!fileName || !*fileName) {
        g_bRequestLogOpened = 0;
        g_szRequestLogPath[0] = L'\0';
        return;
    }
    if (std::wcslen(fileName) > kMaxLogNameLen) {
        // Neither the name nor its backup would fit: rather than write to a
        // truncated name, the channel writes nothing (and does not fall back
        // to the default name either).
        g_szRequestLogPath[0] = L'\0';
        g_bRequestLogOpened = 1;
        return;
    }
    std::wcscpy(g_szRequestLogPath, fileName);
    std::swprintf(g_szTracePath, kTracePathLen, L"%ls%ls", fileName, kTraceSuffix);
    if (rotate == 1) {
        Rotate(g_szRequestLogPath);
        Rotate(g_szTracePath);
    }
    g_bRequestLogOpened = 1;
}

void CallTraceHook(const wchar_t* text) {
    if (!g_traceHookSet.load(std::memory_order_acquire)) return;
    std::lock_guard<std::mutex> guard(g_traceHookLock);
    if (g_traceHook) g_traceHook(text, g_traceHookContext);
}

}  // namespace

int GetLogLevel() { return g_logLevel.load(std::memory_order_relaxed); }

void WriteLog(const wchar_t* text, int level) {
    const int threshold = g_logLevel.load(std::memory_order_relaxed);
    if (level > threshold || !text) return;
    g_bLogBusy.store(1);

    if (level >= 1 && level <= 4) DebugAppendTextFile(L"%ls", text);
    if (threshold == 15) ODS(L"%ls", text);

    // One line: a blank, the text, "\n\r"; room for the longest short text.
    wchar_t line[1 + kChunkLen + 2 + 1];
    const size_t n = std::wcslen(text);
    if (n <= kChunkLen) {
        if (g_bRequestLog.load() == 1) {
            line[0] = L' ';
            std::wmemcpy(line + 1, text, n);
            line[n + 1] = L'\n';
            line[n + 2] = L'\r';
            line[n + 3] = L'\0';
            WriteRequestLog(line);
        }
    } else {
        // Chunks of 252 without the blank; once the logging is closed, only
        // the first one (a line logged during shut-down stays short).
        for (size_t pos = 0; pos < n; pos += kChunkLen) {
            if (g_bRequestLog.load() == 1) {
                size_t len = n - pos < kChunkLen ? n - pos : kChunkLen;
                std::wmemcpy(line, text + pos, len);
                line[len] = L'\n';
                line[len + 1] = L'\r';
                line[len + 2] = L'\0';
                WriteRequestLog(line);
            }
            if (g_bLogClosed.load() == 1) break;
        }
    }
    g_bLogBusy.store(0);
}

void WriteLogF(int level, const wchar_t* format, ...) {
    if (level > g_logLevel.load(std::memory_order_relaxed)) return;
    wchar_t stack[512];
    va_list args;
    va_start(args, format);
    wchar_t* text = FormatV(stack, sizeof stack / sizeof stack[0], format, args);
    va_end(args);
    if (!text) return;
    WriteLog(text, level);
    FreeFormatted(text, stack);
}

int InitLog(int level, const wchar_t* fileName, int rotate) {
    if (fileName && *fileName) {
        OpenRequestLog(fileName, rotate);
        g_bRequestLog.store(1);
    }
    g_bLogClosed.store(0);
    g_bLogBusy.store(0);
    g_logLevel.store(level);
    return 1;
}

void FreeLog() {
    DWORD start = KvnGetTickCount();
    while (g_bLogBusy.load() == 1) {
        KvnSleep(10);
        KvnDebugOutput(L"\r\n FreeLog avant IsTimeOuted   ");
        DWORD now = KvnGetTickCount();
        if (now < start) {
            start = KvnGetTickCount();  // the tick counter wrapped: wait afresh
        } else if (now - start > kFreeLogWaitMs) {
            break;
        }
    }
    g_bLogClosed.store(1);
}

void OpenRequestLog(const wchar_t* fileName, int rotate) {
    std::lock_guard<std::mutex> guard(g_logFilesLock);
    OpenRequestLogLocked(fileName, rotate);
}

void WriteRequestLog(const wchar_t* line) {
    if (!line) return;
    std::lock_guard<std::mutex> guard(g_logFilesLock);
    if (!g_bRequestLogOpened) OpenRequestLogLocked(kDefaultRequestLog, 1);
    if (!g_szRequestLogPath[0]) return;
    AppendToFile(g_szRequestLogPath, line);
}

// The tools library's trace file: each text on a line of its own after the
// local date and time, in the file beside the request log (nothing without a
// request log). The test hook, when one is set, gets the text as well.
void DebugAppendTextFile(const wchar_t* format, ...) {
    wchar_t stack[512];
    va_list args;
    va_start(args, format);
    wchar_t* text = FormatV(stack, sizeof stack / sizeof stack[0], format, args);
    va_end(args);
    if (!text) return;
    CallTraceHook(text);
    {
        std::lock_guard<std::mutex> guard(g_logFilesLock);
        if (g_szTracePath[0]) {
            SYSTEMTIME st;
            KvnGetLocalTime(&st);
            DStr line;
            line.Printf(L"%04u-%02u-%02u %02u:%02u:%02u.%03u  ", st.wYear, st.wMonth, st.wDay,
                        st.wHour, st.wMinute, st.wSecond, st.wMilliseconds);
            line += text;
            AppendToFile(g_szTracePath, line);
        }
    }
    FreeFormatted(text, stack);
}

// The tools library's debugger output.
void ODS(const wchar_t* format, ...) {
    wchar_t stack[512];
    va_list args;
    va_start(args, format);
    wchar_t* text = FormatV(stack, sizeof stack / sizeof stack[0], format, args);
    va_end(args);
    if (!text) return;
    KvnDebugOutput(text);
    FreeFormatted(text, stack);
}

void KvnSetTraceFileHook(KvnTraceFileHook hook, void* context) {
    std::lock_guard<std::mutex> guard(g_traceHookLock);
    g_traceHook = hook;
    g_traceHookContext = context;
    g_traceHookSet.store(hook != nullptr, std::memory_order_release);
}

void KvnResetLogForTests() {
    {
        std::lock_guard<std::mutex> guard(g_logFilesLock);
        g_szRequestLogPath[0] = L'\0';
        g_szTracePath[0] = L'\0';
        g_bRequestLogOpened = 0;
    }
    g_bRequestLog.store(0);
    g_bLogClosed.store(1);
    g_bLogBusy.store(0);
    g_logLevel.store(0);
}
