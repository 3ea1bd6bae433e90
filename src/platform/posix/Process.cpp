// Child processes on POSIX: fork and exec, waitpid, kill.
//
// Where this differs from Windows: a waited-for process is gone (its id may be
// reused), and KvnWaitProcess with a time-out looks every 10 ms, as POSIX has
// no handle to wait on for a child's end. The end with the parent is tied to
// the thread that started the child (Linux's parent-death signal).
#include "platform/Process.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#if defined(__linux__)
#include <sys/prctl.h>
#endif
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/Threads.h"

KvnProcess KvnStartProcess(const char* path, const char* const* argv, const char* stderrPath,
                           BOOL endWithParent) {
    if (!path || !argv || !argv[0]) return 0;
    int errFd = -1;
    if (stderrPath) {
        errFd = open(stderrPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (errFd < 0) return 0;
    }
#if defined(__linux__)
    const pid_t parent = getpid();
#endif
    pid_t pid = fork();
    if (pid == 0) {
        // Only async-signal-safe calls between fork and exec.
#if defined(__linux__)
        if (endWithParent) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            // The parent may have ended before the request took effect.
            if (getppid() != parent) _exit(127);
        }
#else
        (void)endWithParent;
#endif
        // A service takes its stop signals on a thread of its own and blocks
        // them everywhere else; the program started here must not inherit that.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        if (errFd >= 0) dup2(errFd, 2);
        // The service binds ports of its own; descriptors of the parent
        // (listening sockets above all) must not live on in it.
        for (int fd = 3; fd < 1024; ++fd) close(fd);
        execv(path, const_cast<char* const*>(argv));
        _exit(127);
    }
    if (errFd >= 0) close(errFd);
    return pid > 0 ? static_cast<KvnProcess>(pid) : 0;
}

int KvnWaitProcess(KvnProcess process, DWORD timeoutMs, int* exitCode) {
    DWORD start = KvnGetTickCount();
    for (;;) {
        int status = 0;
        pid_t r = waitpid(static_cast<pid_t>(process), &status, WNOHANG);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r > 0) {
            if (exitCode) {
                *exitCode = WIFEXITED(status) ? WEXITSTATUS(status)
                                              : 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
            }
            return 1;
        }
        if (timeoutMs != INFINITE && KvnGetTickCount() - start >= timeoutMs) return 0;
        KvnSleep(10);
    }
}

BOOL KvnTerminateProcess(KvnProcess process) {
    if (process <= 0) return FALSE;
    return kill(static_cast<pid_t>(process), SIGTERM) == 0 ? TRUE : FALSE;
}
