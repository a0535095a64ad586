#include "platform/host/start_report.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace host {

namespace {

struct Record {
    int tag;  // 'P': value is a pid; 'E': value is errno of a failure
    int value;
};

void send(int fd, int tag, int value) {
    Record r{tag, value};
    ssize_t n = ::write(fd, &r, sizeof r);
    (void)n;  // the parent then sees end of file and its default outcome
}

}  // namespace

bool StartReport::open(const char *routine) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        std::fprintf(stderr, "%s: pipe: %s\n", routine, std::strerror(errno));
        return false;
    }
    in_.reset(fds[0]);
    out_.reset(fds[1]);
    return true;
}

void StartReport::started(pid_t pid) const { send(out_.get(), 'P', static_cast<int>(pid)); }

void StartReport::failed(int error) const { send(out_.get(), 'E', error); }

StartOutcome StartReport::collect() {
    out_.reset();
    StartOutcome outcome;
    Record r;
    for (;;) {
        ssize_t n = ::read(in_.get(), &r, sizeof r);
        if (n < 0 && errno == EINTR) continue;
        if (n != static_cast<ssize_t>(sizeof r)) break;
        if (r.tag == 'P') outcome.pid = r.value;
        if (r.tag == 'E') outcome.error = r.value;
    }
    in_.reset();
    return outcome;
}

}  // namespace host
