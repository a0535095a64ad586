#include "tests/program/daemon_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/support/testroot.h"

namespace testroot {

DaemonProcess::DaemonProcess() {
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(kConsole, O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        setenv("SLEEP_SHIM_DIVISOR", "100", 1);
        execl(FAILOVER_BINARY, "failover", static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);  // daemon() lets the starting process exit at once
    wait_for([this] {
        controller_ = std::atoi(read_file("/var/run/failover.pid").c_str());
        return controller_ > 0;
    });
}

DaemonProcess::~DaemonProcess() {
    // daemon() made the controller a session leader; the monitor is in its group.
    if (controller_ > 0) kill(-controller_, SIGKILL);
}

std::string DaemonProcess::console() { return read_file(kConsole); }

bool DaemonProcess::console_has(const std::string &text) {
    return console().find(text) != std::string::npos;
}

}  // namespace testroot
