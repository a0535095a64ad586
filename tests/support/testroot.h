// Helpers for tests that run inside the throwaway root (tests/testroot/launch).
//
// Inside the root: busybox for the shell and the usual tools; /bin/sh logs every "-c" command
// line it is given; recording stand-ins replace the external programs (ping, ps, route, ip,
// killall, udhcpc, pppd, ...) and print scripted output; a preloaded sleep shim records every
// sleep()/usleep() and returns at once; /proc is a plain directory holding the files the router
// reads ("/proc/wan_status", "/proc/net/route", "/proc/sys/net/ipv6/conf/all/forwarding").
// Every test process runs in its own mount, PID and network namespace, so the host is never
// touched and everything it started dies with it. The network namespace holds a veth pair
// "veth0"/"veth1" (down, no addresses) for tests that need a real interface.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace testroot {

// True when the process runs inside the test root.
bool inside();

// Empties /tmp, /var/run, the configuration store, the logs and the scripted outputs, and
// restores the default /proc files ("/proc/wan_status" holds "Link Up"). Tests call it in SetUp.
void reset();

// Files (absolute paths inside the root). write_file creates missing parent directories.
void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path);  // "" when missing
bool exists(const std::string &path);

// Stand-ins. `program` is the name the program is called by ("ping") or an absolute path
// ("/usr/sbin/udhcpc"). The stand-in prints `output` on standard output and exits with
// `exit_status` at every later call, until scripted again or reset().
void script(const std::string &program, const std::string &output, int exit_status = 0);
// Puts a recording stand-in at an absolute path that is not one of the defaults.
void install_standin(const std::string &path);

// What ran, in order, since the last reset()/clear_logs():
// every command line given to "/bin/sh -c" (system(), popen()):
std::vector<std::string> shell_commands();
// every stand-in invocation as its argument vector; argv[0] is the name for programs found on
// PATH ("udhcpc") and the full path for programs called by absolute path ("/usr/sbin/udhcpc"):
std::vector<std::vector<std::string>> calls();
std::vector<std::vector<std::string>> calls_of(const std::string &program);
// both kinds merged in order: "sh: COMMAND" and "run: ARGV0 ARG1 ..." (joined by blanks)
std::vector<std::string> events();
// every sleep()/usleep() of the code under test, in microseconds
std::vector<unsigned long> sleeps_us();
// lines of the platform call trace "/tmp/platform_trace.jsonl"
std::vector<std::string> trace();
// Forgets what was recorded so far (events, sleeps, "/dev/console", the platform trace),
// keeping files and scripts.
void clear_logs();

// Polls `condition` every few milliseconds until it holds or `deadline` passes (real time;
// the sleep shim does not slow this down). Returns whether it held.
bool wait_for(const std::function<bool()> &condition,
              std::chrono::milliseconds deadline = std::chrono::seconds(10));

}  // namespace testroot
