// _eval and _eval_daemon: argument vectors run without a shell. Whether a program could be
// started is learnt through a start report (platform/host/start_report.h).
#include "platform/vesk_shared.h"

#include "platform/host/start_report.h"
#include "platform/host/trace.h"
#include "platform/host/unique_fd.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

namespace {

enum class Redirect { none, truncate, append, input };

struct Redirection {
    Redirect kind = Redirect::none;
    std::string file;
};

// ">FILE" truncates, ">>FILE" appends (both take standard output and standard error), "<FILE"
// feeds standard input. Null, "" and an operator without a file name mean no redirection.
// Anything else is refused.
std::optional<Redirection> parse_redirection(const char *routine, const char *path) {
    Redirection r;
    if (path == nullptr || *path == '\0') return r;
    const char *p = path;
    if (p[0] == '>' && p[1] == '>') {
        r.kind = Redirect::append;
        p += 2;
    } else if (p[0] == '>') {
        r.kind = Redirect::truncate;
        p += 1;
    } else if (p[0] == '<') {
        r.kind = Redirect::input;
        p += 1;
    } else {
        std::fprintf(stderr, "%s: unusable redirection \"%s\" (expected >FILE, >>FILE or <FILE)\n",
                     routine, path);
        return std::nullopt;
    }
    while (*p == ' ') ++p;
    r.file = p;
    if (r.file.empty()) r.kind = Redirect::none;
    return r;
}

// In the child: applies the redirection. A file that cannot be opened is reported and the
// program runs with what it inherited, so that a missing console never keeps a command from
// running.
void apply_redirection(const char *routine, const Redirection &r) {
    if (r.kind == Redirect::none) return;
    int flags = O_WRONLY | O_CREAT | (r.kind == Redirect::append ? O_APPEND : O_TRUNC);
    if (r.kind == Redirect::input) flags = O_RDONLY;
    int fd = ::open(r.file.c_str(), flags | O_NOCTTY, 0666);
    if (fd < 0) {
        std::fprintf(stderr, "%s: %s: %s\n", routine, r.file.c_str(), std::strerror(errno));
        return;
    }
    if (r.kind == Redirect::input) {
        ::dup2(fd, STDIN_FILENO);
    } else {
        ::dup2(fd, STDOUT_FILENO);
        ::dup2(fd, STDERR_FILENO);
    }
    if (fd > STDERR_FILENO) ::close(fd);
}

// In the child: the caller ignores SIGPIPE and SIGCHLD; the programs it starts expect the
// defaults (an ignored disposition and a blocked signal would survive the exec).
void restore_signals() {
    ::signal(SIGPIPE, SIG_DFL);
    ::signal(SIGCHLD, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// In the child: execs argv; on failure reports errno and ends the child.
[[noreturn]] void exec_or_report(char *const argv[], const host::StartReport &report) {
    ::execvp(argv[0], argv);
    report.failed(errno);
    ::_exit(127);
}

// waitpid that retries on EINTR. With SIGCHLD ignored it blocks until the child has ended and
// then fails with ECHILD.
pid_t wait_for(pid_t pid, int *status, int options) {
    pid_t r;
    do r = ::waitpid(pid, status, options);
    while (r < 0 && errno == EINTR);
    return r;
}

// The exit code of a normal end, or 128 + the signal number for a child killed by a signal (as
// a shell reports it).
int status_code(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 0;
}

// Waits for `pid` and returns its exit code; 0 when the status cannot be had because the system
// reaped the child (SIGCHLD ignored).
int wait_exit_code(pid_t pid) {
    int status = 0;
    if (wait_for(pid, &status, 0) < 0) return 0;
    return status_code(status);
}

// Waits for `pid` at most `timeout` seconds; kills it and returns -1 when the time runs out.
int wait_with_timeout(pid_t pid, int timeout) {
    host::UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (pidfd.valid()) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout);
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) break;
            pollfd p{pidfd.get(), POLLIN, 0};
            int r = ::poll(&p, 1, static_cast<int>(std::min<long long>(left.count(), 86400000)));
            if (r < 0 && errno == EINTR) continue;
            if (r != 0) return wait_exit_code(pid);
        }
    } else if (errno == ESRCH) {
        // Already ended and reaped by the system.
        return 0;
    } else {
        // No pidfd (old kernel): poll the child's state.
        for (long long ms = 0; ms < timeout * 1000LL; ms += 10) {
            int status = 0;
            pid_t w = wait_for(pid, &status, WNOHANG);
            if (w < 0) return 0;
            if (w == pid) return status_code(status);
            timespec ts{0, 10 * 1000 * 1000};
            ::nanosleep(&ts, nullptr);
        }
    }
    std::fprintf(stderr, "_eval: pid %d still running after %d s, killed\n", static_cast<int>(pid),
                 timeout);
    ::kill(pid, SIGKILL);
    int status = 0;
    wait_for(pid, &status, 0);
    return -1;
}

bool usable_argv(const char *routine, char *const argv[]) {
    if (argv == nullptr || argv[0] == nullptr) {
        std::fprintf(stderr, "%s: no program to run\n", routine);
        return false;
    }
    return true;
}

}  // namespace

int _eval(char *const argv[], const char *path, int timeout, int *ppid) {
    trace::call("_eval", {trace::argv(argv), trace::text(path), trace::number(timeout),
                          trace::out_ptr(ppid, "ppid")});
    if (!usable_argv("_eval", argv)) return -1;
    auto redirection = parse_redirection("_eval", path);
    if (!redirection) return -1;

    host::StartReport report;
    if (!report.open("_eval")) return -1;

    std::fflush(stdout);
    std::fflush(stderr);
    pid_t pid = ::fork();
    if (pid < 0) {
        std::fprintf(stderr, "_eval: fork: %s\n", std::strerror(errno));
        return -1;
    }
    if (pid == 0) {
        restore_signals();
        apply_redirection("_eval", *redirection);
        exec_or_report(argv, report);
    }

    int error = report.collect().error;
    if (error != 0) {
        std::fprintf(stderr, "_eval: %s: %s\n", argv[0], std::strerror(error));
        int status = 0;
        wait_for(pid, &status, 0);
        return -1;
    }
    if (ppid != nullptr) {
        *ppid = pid;
        return 0;
    }
    if (timeout > 0) return wait_with_timeout(pid, timeout);
    return wait_exit_code(pid);
}

int _eval_daemon(char *const argv[], const char *path, int timeout, int *ppid, int flags) {
    trace::call("_eval_daemon", {trace::argv(argv), trace::text(path), trace::number(timeout),
                                 trace::out_ptr(ppid, "ppid"), trace::number(flags)});
    if (!usable_argv("_eval_daemon", argv)) return -1;
    auto redirection = parse_redirection("_eval_daemon", path);
    if (!redirection) return -1;

    host::StartReport report;
    if (!report.open("_eval_daemon")) return -1;

    std::fflush(stdout);
    std::fflush(stderr);
    pid_t middle = ::fork();
    if (middle < 0) {
        std::fprintf(stderr, "_eval_daemon: fork: %s\n", std::strerror(errno));
        return -1;
    }
    if (middle == 0) {
        // The middle child starts a new session and leaves at once, so the program belongs to
        // no one's session and is reaped by init.
        ::setsid();
        pid_t pid = ::fork();
        if (pid == 0) {
            restore_signals();
            int null_fd = ::open("/dev/null", O_RDONLY);
            if (null_fd >= 0) {
                ::dup2(null_fd, STDIN_FILENO);
                if (null_fd > STDERR_FILENO) ::close(null_fd);
            }
            apply_redirection("_eval_daemon", *redirection);
            exec_or_report(argv, report);
        }
        if (pid < 0) report.failed(errno);
        else report.started(pid);
        ::_exit(0);
    }

    int status = 0;
    wait_for(middle, &status, 0);
    host::StartOutcome started = report.collect();
    if (started.error != 0 || started.pid <= 0) {
        std::fprintf(stderr, "_eval_daemon: %s: %s\n", argv[0],
                     std::strerror(started.error != 0 ? started.error : ECHILD));
        return -1;
    }
    if (ppid != nullptr) *ppid = started.pid;
    return 0;
}
