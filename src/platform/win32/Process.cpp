// Child processes on Windows: CreateProcessW, WaitForSingleObject,
// TerminateProcess. The KvnProcess value is the process handle, closed once
// KvnWaitProcess has reported the end.
#include "platform/Process.h"

#include <string>

namespace {

std::wstring Widen(const char* text) {
    std::wstring out;
    int n = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
    if (n > 0) {
        out.resize(static_cast<size_t>(n));
        MultiByteToWideChar(CP_UTF8, 0, text, -1, &out[0], n);
        out.resize(static_cast<size_t>(n - 1));
    }
    return out;
}

// One argument quoted for the C runtime's command-line parser.
void AppendQuoted(std::wstring& line, const std::wstring& arg) {
    if (!line.empty()) line += L' ';
    if (!arg.empty() && arg.find_first_of(L" \t\"") == std::wstring::npos) {
        line += arg;
        return;
    }
    line += L'"';
    size_t backslashes = 0;
    for (wchar_t c : arg) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        if (c == L'"') line.append(backslashes * 2 + 1, L'\\');
        else line.append(backslashes, L'\\');
        backslashes = 0;
        line += c;
    }
    line.append(backslashes * 2, L'\\');
    line += L'"';
}

}  // namespace

KvnProcess KvnStartProcess(const char* path, const char* const* argv, const char* stderrPath,
                           BOOL /*endWithParent: not supported here*/) {
    if (!path || !argv || !argv[0]) return 0;
    std::wstring line;
    for (int i = 0; argv[i]; ++i) AppendQuoted(line, Widen(argv[i]));
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    HANDLE errFile = INVALID_HANDLE_VALUE;
    if (stderrPath) {
        SECURITY_ATTRIBUTES sa = {sizeof(sa), nullptr, TRUE};
        errFile = CreateFileW(Widen(stderrPath).c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              &sa, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (errFile == INVALID_HANDLE_VALUE) return 0;
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
        si.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
        si.hStdError = errFile;
    }
    PROCESS_INFORMATION pi = {};
    BOOL ok = CreateProcessW(Widen(path).c_str(), &line[0], nullptr, nullptr, stderrPath ? TRUE : FALSE,
                             0, nullptr, nullptr, &si, &pi);
    if (errFile != INVALID_HANDLE_VALUE) CloseHandle(errFile);
    if (!ok) return 0;
    CloseHandle(pi.hThread);
    return static_cast<KvnProcess>(reinterpret_cast<LONG_PTR>(pi.hProcess));
}

int KvnWaitProcess(KvnProcess process, DWORD timeoutMs, int* exitCode) {
    HANDLE h = reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(process));
    DWORD r = WaitForSingleObject(h, timeoutMs);
    if (r == WAIT_TIMEOUT) return 0;
    if (r != WAIT_OBJECT_0) return -1;
    DWORD code = 0;
    GetExitCodeProcess(h, &code);
    if (exitCode) *exitCode = static_cast<int>(code);
    CloseHandle(h);
    return 1;
}

BOOL KvnTerminateProcess(KvnProcess process) {
    HANDLE h = reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(process));
    return TerminateProcess(h, 1);
}
