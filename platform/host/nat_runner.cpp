// Running nft, conntrack and sysctl for the NAT library.
//
// The library needs the programs' exit status, but the daemon ignores SIGCHLD, so the system
// reaps its children and waitpid learns nothing. A middle process (SIGCHLD at its default)
// therefore starts the program, waits for it and writes the status into a report pipe; a
// program that cannot be started writes its errno into the same pipe, which is close-on-exec.
// The input goes in through a memory file, so a long script and a talkative program can never
// block each other on pipes.
#include "platform/host/nat_runner.h"

#include "platform/host/unique_fd.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace nat {
namespace {

using host::UniqueFd;
using host::write_all;

struct Report {
    int tag;    // 'E': value is errno of a failed start; 'S': value is the program's status
    int value;
};

void send_report(int fd, int tag, int value) {
    Report r{tag, value};
    ssize_t n = ::write(fd, &r, sizeof r);  // below PIPE_BUF: written whole or not at all
    (void)n;
}

// In the middle process: starts the program and reports how it ended. Never returns.
[[noreturn]] void middle(char *const argv[], int input_fd, int output_fd, int report_fd) {
    ::signal(SIGCHLD, SIG_DFL);
    ::signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    pid_t pid = ::fork();
    if (pid < 0) {
        send_report(report_fd, 'E', errno);
        ::_exit(0);
    }
    if (pid == 0) {
        ::dup2(input_fd, STDIN_FILENO);
        ::dup2(output_fd, STDOUT_FILENO);
        ::dup2(output_fd, STDERR_FILENO);
        ::execvp(argv[0], argv);
        send_report(report_fd, 'E', errno);
        ::_exit(127);
    }
    ::close(output_fd);
    int status = 0;
    pid_t w;
    do w = ::waitpid(pid, &status, 0);
    while (w < 0 && errno == EINTR);
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    send_report(report_fd, 'S', code);
    ::_exit(0);
}

}  // namespace

Run run(const std::vector<std::string> &args, const std::string &input) {
    Run result;
    std::vector<char *> argv;
    for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);

    UniqueFd in(::memfd_create("nat-input", MFD_CLOEXEC));
    if (!in.valid() || !write_all(in.get(), input) || ::lseek(in.get(), 0, SEEK_SET) != 0) {
        result.start_error = errno;
        return result;
    }
    int out_fds[2], report_fds[2];
    if (::pipe2(out_fds, O_CLOEXEC) != 0) {
        result.start_error = errno;
        return result;
    }
    UniqueFd out_read(out_fds[0]), out_write(out_fds[1]);
    if (::pipe2(report_fds, O_CLOEXEC) != 0) {
        result.start_error = errno;
        return result;
    }
    UniqueFd report_read(report_fds[0]), report_write(report_fds[1]);

    std::fflush(stdout);
    std::fflush(stderr);
    pid_t pid = ::fork();
    if (pid < 0) {
        result.start_error = errno;
        return result;
    }
    if (pid == 0) middle(argv.data(), in.get(), out_write.get(), report_write.get());

    out_write.reset();
    report_write.reset();
    char chunk[4096];
    for (;;) {
        ssize_t n = ::read(out_read.get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        result.output.append(chunk, static_cast<size_t>(n));
    }
    Report r;
    int error = 0;
    for (;;) {
        ssize_t n = ::read(report_read.get(), &r, sizeof r);
        if (n < 0 && errno == EINTR) continue;
        if (n != static_cast<ssize_t>(sizeof r)) break;
        if (r.tag == 'E') error = r.value;
        if (r.tag == 'S') result.status = r.value;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (error != 0) {
        result.start_error = error;
        result.status = -1;
    } else if (result.status < 0) {
        result.start_error = ECHILD;  // the middle process died before reporting
    }
    return result;
}

std::string first_line(const std::string &output) {
    size_t start = 0;
    while (start < output.size()) {
        size_t end = output.find('\n', start);
        if (end == std::string::npos) end = output.size();
        std::string line = output.substr(start, end - start);
        if (line.find_first_not_of(" \t\r") != std::string::npos) return line;
        start = end + 1;
    }
    return "";
}

}  // namespace nat
