// The terminal, Ctrl-C and the pager, on POSIX; line editing through libedit.
#include "Terminal.h"

#include <errno.h>
#include <langinfo.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#ifdef KVNSQL_HAVE_LIBEDIT
#include <histedit.h>
#endif

namespace {

enum Phase { kIdle, kWaiting, kFetching, kPaging };

volatile sig_atomic_t g_phase = kIdle;
volatile sig_atomic_t g_interrupted = 0;
volatile sig_atomic_t g_interactive = 0;
// When the last Ctrl-C came while waiting (ms of the monotonic clock; 0: none).
std::atomic<long long> g_lastWaitInterrupt{0};

long long NowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void Say(const char* text) {
    // Only async-signal-safe calls in here.
    ssize_t ignored = write(STDERR_FILENO, text, std::strlen(text));
    (void)ignored;
}

// Ends the process as Ctrl-C ends programs that do not catch it, so that a
// calling shell sees it.
void EndByInterrupt() {
    signal(SIGINT, SIG_DFL);
    // Blocked while its handler runs: let it through at once.
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
    raise(SIGINT);
}

void OnInterrupt(int) {
    const int savedErrno = errno;
    switch (g_phase) {
    case kPaging:
        break;  // the pager's own
    case kWaiting:
    case kFetching: {
        const long long now = NowMs();
        const long long last = g_lastWaitInterrupt.exchange(now);
        if (last != 0 && now - last <= 1000) {
            Say("\nkvnsql: ended by a second Ctrl-C\n");
            EndByInterrupt();
        }
        if (g_phase == kWaiting) {
            Say("\nCtrl-C: the service cannot stop a statement; it finishes it and kvnsql goes on once its "
                "answer came (Ctrl-C again within a second ends kvnsql)\n");
        }
        g_interrupted = 1;
        break;
    }
    default:
        if (!g_interactive) EndByInterrupt();
        g_interrupted = 1;
        break;
    }
    errno = savedErrno;
}

bool IsUtf8Locale() {
    const char* codeset = nl_langinfo(CODESET);
    return codeset != nullptr && (std::strcmp(codeset, "UTF-8") == 0 || std::strcmp(codeset, "utf8") == 0);
}

std::string WithoutLineEnd(std::string line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    return line;
}

class PlainReader : public LineReader {
public:
    PlainReader(std::FILE* in, bool prompt) : in_(in), prompt_(prompt) {}

    Result Read(const std::string& prompt, std::string& line) override {
        if (prompt_) {
            std::fputs(prompt.c_str(), stderr);
            std::fflush(stderr);
        }
        char* buffer = nullptr;
        std::size_t capacity = 0;
        errno = 0;
        const ssize_t n = getline(&buffer, &capacity, in_);
        const int error = errno;
        if (n >= 0) line = WithoutLineEnd(std::string(buffer, static_cast<std::size_t>(n)));
        std::free(buffer);
        if (n >= 0) return Result::Line;
        if (error == EINTR || Interrupted()) {
            clearerr(in_);
            if (prompt_) std::fputs("\n", stderr);
            return Result::Interrupted;
        }
        return Result::End;
    }

private:
    std::FILE* in_;
    bool prompt_;
};

#ifdef KVNSQL_HAVE_LIBEDIT

class EditReader : public LineReader {
public:
    EditReader(const std::string& historyFile, const std::vector<std::string>& completions)
        : historyFile_(historyFile), completions_(completions) {
        history_ = history_init();
        history(history_, &event_, H_SETSIZE, 1000);
        history(history_, &event_, H_SETUNIQUE, 1);
        if (!historyFile_.empty()) history(history_, &event_, H_LOAD, historyFile_.c_str());
        editLine_ = el_init("kvnsql", stdin, stderr, stderr);
        el_set(editLine_, EL_CLIENTDATA, this);
        el_set(editLine_, EL_EDITOR, "emacs");
        el_set(editLine_, EL_PROMPT, &EditReader::Prompt);
        el_set(editLine_, EL_HIST, history, history_);
        // Wide names: the narrow call leaves copies of them that nothing frees.
        el_wset(editLine_, EL_ADDFN, L"kvnsql-complete", L"complete a backslash command", &EditReader::Complete);
        el_set(editLine_, EL_BIND, "^I", "kvnsql-complete", nullptr);
        el_set(editLine_, EL_GETCFN, &EditReader::ReadChar);
        el_source(editLine_, nullptr);  // the user's ~/.editrc
    }

    ~EditReader() override {
        el_end(editLine_);
        history_end(history_);
    }

    Result Read(const std::string& prompt, std::string& line) override {
        prompt_ = prompt;
        int count = 0;
        const char* text = el_gets(editLine_, &count);
        // Interrupted, the editor may still hand over what was typed.
        if (Interrupted()) {
            std::fputs("\n", stderr);
            return Result::Interrupted;
        }
        if (text == nullptr) return Result::End;
        line = WithoutLineEnd(text);
        if (line.find_first_not_of(" \t") != std::string::npos) {
            history(history_, &event_, H_ENTER, line.c_str());
            // Saved at once: a second Ctrl-C may end kvnsql at any time.
            if (!historyFile_.empty()) history(history_, &event_, H_SAVE, historyFile_.c_str());
        }
        return Result::Line;
    }

private:
    static EditReader* Self(EditLine* el) {
        void* self = nullptr;
        el_get(el, EL_CLIENTDATA, &self);
        return static_cast<EditReader*>(self);
    }

    // Waits for input on standard input; false once Ctrl-C came. Ctrl-C is
    // held back between the look at the flag and the wait, which lets it in.
    static bool WaitForKey() {
        sigset_t interrupt, previous;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        pthread_sigmask(SIG_BLOCK, &interrupt, &previous);
        int ready = 0;
        while (!Interrupted() && ready <= 0) {
            pollfd input{STDIN_FILENO, POLLIN, 0};
            ready = ppoll(&input, 1, nullptr, &previous);
            if (ready < 0 && errno != EINTR) break;
        }
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        return !Interrupted();
    }

    static char* Prompt(EditLine* el) { return const_cast<char*>(Self(el)->prompt_.c_str()); }

    // The editor's own reader tries a read again after a signal; this one
    // gives up when the signal was Ctrl-C, so that the line ends at once,
    // also when Ctrl-C came just before the wait for a key began.
    static int ReadChar(EditLine*, wchar_t* out) {
        std::mbstate_t state{};
        for (;;) {
            if (!WaitForKey()) return -1;
            char byte = 0;
            const ssize_t n = read(STDIN_FILENO, &byte, 1);
            if (n == 0) return 0;
            if (n < 0) {
                if (errno == EINTR && !Interrupted()) continue;
                return -1;
            }
            wchar_t c = 0;
            const std::size_t used = std::mbrtowc(&c, &byte, 1, &state);
            if (used == static_cast<std::size_t>(-2)) continue;  // more bytes to come
            if (used == static_cast<std::size_t>(-1)) {
                state = std::mbstate_t{};
                c = 0xFFFD;
            }
            *out = c;
            return 1;
        }
    }

    // Completes the backslash command typed at the start of the line; lists
    // the candidates when several remain.
    static unsigned char Complete(EditLine* el, int) {
        const LineInfo* info = el_line(el);
        const std::string before(info->buffer, info->cursor);
        const std::size_t start = before.find_first_not_of(" \t");
        if (start == std::string::npos || before[start] != '\\' ||
            before.find_first_of(" \t", start) != std::string::npos) {
            return CC_ERROR;
        }
        const std::string typed = before.substr(start + 1);
        std::vector<std::string> matches;
        for (const std::string& word : Self(el)->completions_) {
            if (word.compare(0, typed.size(), typed) == 0) matches.push_back(word);
        }
        if (matches.empty()) return CC_ERROR;
        if (matches.size() == 1) {
            el_insertstr(el, (matches[0].substr(typed.size()) + " ").c_str());
            return CC_REFRESH;
        }
        std::size_t common = typed.size();
        while (common < matches[0].size()) {
            bool same = true;
            for (const std::string& m : matches) same = same && common < m.size() && m[common] == matches[0][common];
            if (!same) break;
            ++common;
        }
        if (common > typed.size()) {
            el_insertstr(el, matches[0].substr(typed.size(), common - typed.size()).c_str());
            return CC_REFRESH;
        }
        std::string list = "\n";
        for (const std::string& m : matches) list += "\\" + m + "  ";
        list += "\n";
        std::fputs(list.c_str(), stderr);
        return CC_REDISPLAY;
    }

    std::string historyFile_;
    std::vector<std::string> completions_;
    std::string prompt_;
    History* history_ = nullptr;
    HistEvent event_{};
    EditLine* editLine_ = nullptr;
};

#endif

}  // namespace

void UseUtf8Locale() {
    std::setlocale(LC_CTYPE, "");
    if (!IsUtf8Locale()) std::setlocale(LC_CTYPE, "C.UTF-8");
}

bool IsTerminal(std::FILE* stream) { return isatty(fileno(stream)) == 1; }

bool TerminalSize(std::FILE* stream, int& rows, int& columns) {
    winsize size{};
    if (!IsTerminal(stream) || ioctl(fileno(stream), TIOCGWINSZ, &size) != 0 || size.ws_row == 0) return false;
    rows = size.ws_row;
    columns = size.ws_col;
    return true;
}

void InstallInterruptHandler(bool interactive) {
    g_interactive = interactive ? 1 : 0;
    struct sigaction action {};
    action.sa_handler = &OnInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: a read in progress returns, and the prompt starts again
    sigaction(SIGINT, &action, nullptr);
}

bool Interrupted() { return g_interrupted != 0; }

void ClearInterrupt() { g_interrupted = 0; }

ServiceWait::ServiceWait(bool fetching) : previous_(g_phase) {
    if (previous_ == kIdle) g_lastWaitInterrupt = 0;
    g_phase = fetching || previous_ == kFetching ? kFetching : kWaiting;
}

ServiceWait::~ServiceWait() { g_phase = previous_; }

namespace {
sigset_t g_savedMask;
}

InterruptsBlocked::InterruptsBlocked() {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    pthread_sigmask(SIG_BLOCK, &blocked, &g_savedMask);
}

InterruptsBlocked::~InterruptsBlocked() { pthread_sigmask(SIG_SETMASK, &g_savedMask, nullptr); }

std::unique_ptr<LineReader> MakeFileReader(std::FILE* in) { return std::make_unique<PlainReader>(in, false); }

std::unique_ptr<LineReader> MakeTerminalReader(const std::string& historyFile,
                                               const std::vector<std::string>& completions) {
#ifdef KVNSQL_HAVE_LIBEDIT
    if (IsTerminal(stderr)) return std::make_unique<EditReader>(historyFile, completions);
#else
    (void)historyFile;
    (void)completions;
#endif
    return std::make_unique<PlainReader>(stdin, true);
}

std::string HistoryFile() {
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') return std::string();
    return std::string(home) + "/.kvnsql_history";
}

bool ShowInPager(const std::string& text, const std::string& command) {
    std::fflush(stdout);
    // Quitting the pager before the end closes the pipe under our writes.
    struct sigaction ignore {}, previousPipe {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, &previousPipe);
    const sig_atomic_t previousPhase = g_phase;
    g_phase = kPaging;
    bool shown = false;
    if (std::FILE* pager = popen(command.c_str(), "w")) {
        std::fwrite(text.data(), 1, text.size(), pager);
        const int status = pclose(pager);
        // 127: the shell did not find the pager.
        shown = status != -1 && !(WIFEXITED(status) && WEXITSTATUS(status) == 127);
    }
    g_phase = previousPhase;
    sigaction(SIGPIPE, &previousPipe, nullptr);
    return shown;
}
