// Running kvnsql for the tests: through the shell with files for its
// streams, or on a pseudo-terminal.
#include "KvnsqlRun.h"

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "support/TestUtil.h"

namespace kvnsqltest {

const char* const kUp = "\x1b[A";
const char* const kCtrlC = "\x03";

namespace {

std::string Quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

int StatusOf(int waitStatus) {
    if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus)) return 128 + WTERMSIG(waitStatus);
    return -1;
}

}  // namespace

Outcome RunKvnsql(unsigned short port, const std::vector<std::string>& args, const std::string& stdinText) {
    TempDir dir;
    std::ofstream(dir.File("in")) << stdinText;
    std::string command = Quoted(KVNSQL_PATH) + " --port " + std::to_string(port);
    for (const std::string& a : args) command += " " + Quoted(a);
    command += " <" + Quoted(dir.File("in")) + " >" + Quoted(dir.File("out")) + " 2>" + Quoted(dir.File("err"));
    Outcome run;
    const int status = std::system(command.c_str());
    run.status = StatusOf(status);
    run.out = ReadFile(dir.File("out"));
    run.err = ReadFile(dir.File("err"));
    return run;
}

Terminal::Terminal(unsigned short port, const std::string& home, const std::string& pager) {
    winsize size{};
    size.ws_row = 24;
    size.ws_col = 100;
    const std::string portText = std::to_string(port);
    pid_ = forkpty(&master_, nullptr, nullptr, &size);
    if (pid_ == 0) {
        setenv("HOME", home.c_str(), 1);
        setenv("TERM", "xterm", 1);
        setenv("PAGER", pager.c_str(), 1);
        unsetenv("EDITRC");
        execl(KVNSQL_PATH, KVNSQL_PATH, "--port", portText.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    EXPECT_GT(pid_, 0) << "forkpty failed";
}

Terminal::~Terminal() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
    }
    if (master_ >= 0) close(master_);
}

void Terminal::Type(const std::string& keys) {
    // Key by key, as typed: a line editor reads escape sequences whole.
    ssize_t written = write(master_, keys.data(), keys.size());
    EXPECT_EQ(static_cast<ssize_t>(keys.size()), written);
}

bool Terminal::ReadSome(int timeoutMs) {
    pollfd pfd{master_, POLLIN, 0};
    if (poll(&pfd, 1, timeoutMs) <= 0) return false;
    char buffer[4096];
    const ssize_t n = read(master_, buffer, sizeof buffer);
    if (n <= 0) return false;
    output_.append(buffer, static_cast<std::size_t>(n));
    return true;
}

bool Terminal::Expect(const std::string& text, int timeoutMs) {
    const auto start = kvntest::Clock::now();
    for (;;) {
        const std::size_t at = output_.find(text);
        if (at != std::string::npos) {
            output_.erase(0, at + text.size());
            return true;
        }
        const long long left = timeoutMs - kvntest::MsSince(start);
        if (left <= 0 || !ReadSome(static_cast<int>(left))) {
            ADD_FAILURE() << "'" << text << "' did not come; the terminal shows:\n" << output_;
            return false;
        }
    }
}

int Terminal::WaitForExit(int timeoutMs) {
    const auto start = kvntest::Clock::now();
    while (kvntest::MsSince(start) < timeoutMs) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return StatusOf(status);
        }
        ReadSome(50);  // keeps the terminal drained meanwhile
    }
    return -1;
}

}  // namespace kvnsqltest
