// The built failover daemon started inside the test root for whole-program tests.
#pragma once

#include <sys/types.h>

#include <string>

namespace testroot {

// Starts the daemon with its console in kConsole and the sleep shim waiting 1/100 of each
// requested sleep; kills both of its processes when destroyed.
class DaemonProcess {
public:
    static constexpr const char *kConsole = "/tmp/failover.console";

    DaemonProcess();
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess &) = delete;
    DaemonProcess &operator=(const DaemonProcess &) = delete;

    // The controller's pid (from "/var/run/failover.pid"), 0 when it did not start.
    pid_t controller() const { return controller_; }
    static std::string console();
    static bool console_has(const std::string &text);

private:
    pid_t controller_ = 0;
};

}  // namespace testroot
