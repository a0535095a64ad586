// How a child tells its parent whether what it started is running, whatever the parent's SIGCHLD
// disposition (the daemon ignores SIGCHLD, so waitpid cannot be relied on to report anything: it
// fails with ECHILD once the system has reaped the child). Host-internal.
//
// The report travels on a close-on-exec pipe. A successful exec closes the child's end unseen; a
// failure writes its errno first. A child that runs on instead of exec'ing (a middle child that
// forks the program, a reader that serves a FIFO) writes the pid of what runs and closes its end
// by hand. The parent reads until every copy of the write end is closed.
#pragma once

#include "platform/host/unique_fd.h"

#include <sys/types.h>

namespace host {

struct StartOutcome {
    pid_t pid = 0;  // the last pid reported, 0 when none was
    int error = 0;  // errno of the last failure reported, 0 when none was
};

class StartReport {
public:
    // Opens the pipe. False after "<routine>: pipe: <system error>" on stderr.
    bool open(const char *routine);

    // In a child: the write end (to keep open when closing every other descriptor).
    int writer() const { return out_.get(); }
    // In a child: `pid` runs; the start failed with `error`. Each is one write below PIPE_BUF,
    // so it arrives whole or not at all.
    void started(pid_t pid) const;
    void failed(int error) const;
    // In a child that runs on: nothing more to report.
    void close_writer() { out_.reset(); }

    // In the parent after fork: closes its own write end, then reads the reports until every
    // child has closed its end.
    StartOutcome collect();

private:
    UniqueFd in_, out_;
};

}  // namespace host
