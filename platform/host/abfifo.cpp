// Debug capture through a FIFO: a detached reader copies what is written into the FIFO to a
// text file. The reader's pid is kept in "<fifo>.pid", which is how a running reader is found.
#include "platform/vesk_shared.h"

#include "platform/host/start_report.h"
#include "platform/host/trace.h"
#include "platform/host/unique_fd.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string pid_file(const char *fifo) { return std::string(fifo) + ".pid"; }

// Appends one chunk to `file`. The file is bounded by `size` KiB: a chunk that would pass the
// bound starts the file afresh, so it holds the latest output. 0 or less: no bound.
void append_chunk(const std::string &file, int size, const char *data, size_t n) {
    host::UniqueFd out(::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
    if (!out.valid()) return;
    struct stat st {};
    if (size > 0 && ::fstat(out.get(), &st) == 0 &&
        static_cast<long long>(st.st_size) + static_cast<long long>(n) > size * 1024LL)
        if (::ftruncate(out.get(), 0) != 0) return;
    ssize_t written = ::write(out.get(), data, n);
    (void)written;
}

// The reader: detached, holding nothing of its parent but the start report until it runs.
[[noreturn]] void run_reader(const std::string &fifo, const std::string &file, int size,
                             host::StartReport &report) {
    int report_fd = report.writer();
    if (report_fd > 3) ::close_range(3, static_cast<unsigned>(report_fd) - 1, 0);
    ::close_range(static_cast<unsigned>(report_fd) + 1, ~0U, 0);
    int null_fd = ::open("/dev/null", O_RDWR);
    if (null_fd >= 0) {
        // Nothing of the caller's terminal or output pipes stays held by a long-lived reader.
        ::dup2(null_fd, STDIN_FILENO);
        ::dup2(null_fd, STDOUT_FILENO);
        ::dup2(null_fd, STDERR_FILENO);
        if (null_fd > STDERR_FILENO) ::close(null_fd);
    }
    ::signal(SIGPIPE, SIG_DFL);
    ::signal(SIGCHLD, SIG_DFL);

    // Read and write: the FIFO never reports end of file when a writer closes it, and writers
    // opening it never block.
    host::UniqueFd in(::open(fifo.c_str(), O_RDWR | O_CLOEXEC));
    if (!in.valid()) {
        report.failed(errno);
        ::_exit(1);
    }
    std::string pid_text = std::to_string(::getpid()) + "\n";
    host::UniqueFd pid_out(::open(pid_file(fifo.c_str()).c_str(),
                                  O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!pid_out.valid() ||
        ::write(pid_out.get(), pid_text.data(), pid_text.size()) !=
            static_cast<ssize_t>(pid_text.size())) {
        report.failed(errno);
        ::_exit(1);
    }
    pid_out.reset();
    report.started(::getpid());
    report.close_writer();

    char buf[4096];
    for (;;) {
        ssize_t n = ::read(in.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) ::_exit(0);
        append_chunk(file, size, buf, static_cast<size_t>(n));
    }
}

}  // namespace

int initial_abfifo(const char *fifo, const char *file, int size) {
    trace::call("initial_abfifo", {trace::text(fifo), trace::text(file), trace::number(size)});
    if (fifo == nullptr || *fifo == '\0' || file == nullptr || *file == '\0') {
        std::fprintf(stderr, "initial_abfifo: no FIFO or file name\n");
        return -1;
    }
    if (::mkfifo(fifo, 0666) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "initial_abfifo: %s: %s\n", fifo, std::strerror(errno));
        return -1;
    }
    struct stat st {};
    if (::stat(fifo, &st) != 0 || !S_ISFIFO(st.st_mode)) {
        std::fprintf(stderr, "initial_abfifo: %s: exists and is not a FIFO\n", fifo);
        return -1;
    }
    if (abfifo_is_running_or_not(fifo)) return 0;

    host::StartReport report;
    if (!report.open("initial_abfifo")) return -1;
    std::string fifo_path(fifo), file_path(file);

    std::fflush(stdout);
    std::fflush(stderr);
    pid_t middle = ::fork();
    if (middle < 0) {
        std::fprintf(stderr, "initial_abfifo: fork: %s\n", std::strerror(errno));
        return -1;
    }
    if (middle == 0) {
        ::setsid();
        pid_t reader = ::fork();
        if (reader == 0) run_reader(fifo_path, file_path, size, report);
        if (reader < 0) report.failed(errno);
        ::_exit(0);
    }

    int status = 0;
    while (::waitpid(middle, &status, 0) < 0 && errno == EINTR) {
    }
    host::StartOutcome started = report.collect();
    int error = started.error;
    if (error == 0 && started.pid <= 0) error = ECHILD;  // the reader ended before it could say
    if (error != 0) {
        std::fprintf(stderr, "initial_abfifo: reader for %s: %s\n", fifo, std::strerror(error));
        return -1;
    }
    return 0;
}

int abfifo_is_running_or_not(const char *fifo) {
    if (fifo == nullptr || *fifo == '\0') return 0;
    struct stat st {};
    if (::stat(fifo, &st) != 0 || !S_ISFIFO(st.st_mode)) return 0;
    host::UniqueFd in(::open(pid_file(fifo).c_str(), O_RDONLY | O_CLOEXEC));
    if (!in.valid()) return 0;
    char text[16] = {};
    if (::read(in.get(), text, sizeof text - 1) <= 0) return 0;
    long pid = std::strtol(text, nullptr, 10);
    if (pid <= 0 || pid > 4194304) return 0;
    return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM ? 1 : 0;
}
