// Extra network namespaces for tests that send real packets, made without /proc (the test
// root's /proc is a plain directory): a child process unshares its network namespace and
// waits; others enter it through a pidfd. Everything a namespace started ends with it.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace netns {

// Runs `argv` (a program path and its arguments) in this process's namespace and returns its
// exit status (-1 when it could not run). Its standard output is dropped, errors go to ours.
inline int exec_here(const std::vector<std::string> &argv) {
    pid_t pid = fork();
    if (pid == 0) {
        std::vector<char *> args;
        for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        int null_fd = open("/dev/null", O_WRONLY);
        if (null_fd >= 0) dup2(null_fd, STDOUT_FILENO);
        char path[] = "PATH=/host/usr/sbin:/host/usr/bin:/bin";
        char *env[] = {path, nullptr};  // no sleep shim: these programs really wait
        execve(args[0], args.data(), env);
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// `ip` of iproute2 with the words of `command`.
inline int ip_here(const std::string &command) {
    std::vector<std::string> argv{"/host/usr/bin/ip"};
    std::istringstream words(command);
    for (std::string w; words >> w;) argv.push_back(w);
    return exec_here(argv);
}

class Namespace {
public:
    Namespace() {
        int ready[2], hold[2];
        if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(hold, O_CLOEXEC) != 0) return;
        holder_ = fork();
        if (holder_ == 0) {
            close(ready[0]);
            close(hold[1]);
            char ok = unshare(CLONE_NEWNET) == 0 ? '1' : '0';
            if (write(ready[1], &ok, 1) != 1) _exit(1);
            char c;
            while (read(hold[0], &c, 1) < 0 && errno == EINTR) {
            }
            _exit(0);
        }
        close(ready[1]);
        close(hold[0]);
        hold_ = hold[1];
        char ok = '0';
        if (read(ready[0], &ok, 1) == 1 && ok == '1')
            pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, holder_, 0));
        close(ready[0]);
        if (pidfd_ >= 0) run_ip("link set lo up");
    }
    ~Namespace() {
        for (pid_t pid : started_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (hold_ >= 0) close(hold_);
        if (pidfd_ >= 0) close(pidfd_);
        if (holder_ > 0) {
            // Children started from other namespaces hold our pipe too: no waiting for its end.
            kill(holder_, SIGKILL);
            waitpid(holder_, nullptr, 0);
        }
    }
    Namespace(const Namespace &) = delete;
    Namespace &operator=(const Namespace &) = delete;

    bool usable() const { return pidfd_ >= 0; }
    // The holder's pid, for "ip link ... netns PID".
    pid_t pid() const { return holder_; }

    // Runs `fn` in a child inside the namespace; its result is the child's exit status.
    int run(const std::function<int()> &fn) const {
        pid_t pid = enter(fn);
        int status = 0;
        if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // Starts `fn` in a child inside the namespace; it is killed with the namespace.
    void start(const std::function<int()> &fn) { started_.push_back(enter(fn)); }

    int run_ip(const std::string &command) const {
        return run([&] { return ip_here(command); });
    }
    int exec(const std::vector<std::string> &argv) const {
        return run([&] { return exec_here(argv); });
    }

private:
    pid_t enter(const std::function<int()> &fn) const {
        pid_t pid = fork();
        if (pid == 0) _exit(setns(pidfd_, CLONE_NEWNET) == 0 ? fn() : 126);
        return pid;
    }

    pid_t holder_ = -1;
    int hold_ = -1;
    int pidfd_ = -1;
    std::vector<pid_t> started_;
};

}  // namespace netns
