// Where the status comes from: the configuration store, the pid file, the event log and the
// daemon's console (the journal, or a saved console log).
#include "platform/host/nvram_store.h"
#include "platform/host/status/status.h"
#include "platform/host/unique_fd.h"
#include "platform/nvram.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <string>

extern char **environ;

namespace status {
namespace {

constexpr const char *kPidFile = "/var/run/failover.pid";
constexpr const char *kEventLog = "/var/log/failover-events.log";
// Lines of the event log looked at (the newest); it grows by one line per WAN-up.
constexpr std::size_t kEventLogLinesRead = 64;

std::string get(const char *key) { return veskNvramConfig_get(key); }

bool has_address(const std::string &address) {
    return !address.empty() && address != "0.0.0.0";
}

std::string local_time(std::time_t t) {
    std::tm local{};
    if (!localtime_r(&t, &local)) return "";
    char text[32];
    if (std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0) return "";
    return text;
}

struct FileCloser {
    void operator()(FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// Calls `each` for every line of `f`, without its line end.
template <typename Each>
void for_each_line(FILE *f, Each each) {
    char *buffer = nullptr;
    size_t size = 0;
    ssize_t n;
    while ((n = getline(&buffer, &size, f)) >= 0) {
        std::string_view line(buffer, static_cast<size_t>(n));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
        each(line);
    }
    std::free(buffer);
}

Daemon read_daemon() {
    Daemon d;
    File f(std::fopen(kPidFile, "re"));
    if (!f) {
        d.note = std::string(kPidFile) + ": " + std::strerror(errno);
        return d;
    }
    char text[32] = {};
    size_t n = std::fread(text, 1, sizeof text - 1, f.get());
    text[n] = '\0';
    char *end = nullptr;
    errno = 0;
    long pid = std::strtol(text, &end, 10);
    while (end && (*end == '\n' || *end == ' ')) ++end;
    if (end == text || *end != '\0' || errno != 0 || pid <= 0 || pid > 0x3fffffff) {
        d.note = std::string(kPidFile) + " holds no process id";
        return d;
    }
    d.pid = static_cast<int>(pid);
    struct stat st;
    if (::fstat(fileno(f.get()), &st) == 0) d.started = local_time(st.st_mtime);
    d.running = ::kill(d.pid, 0) == 0 || errno == EPERM;
    if (!d.running) d.note = "process " + std::to_string(d.pid) + " is gone";
    return d;
}

void read_event_log(Status &s) {
    s.event_log = kEventLog;
    File f(std::fopen(kEventLog, "re"));
    if (!f) {
        s.event_log_note = std::strerror(errno);
        return;
    }
    std::deque<EventLogEntry> newest;
    for_each_line(f.get(), [&](std::string_view line) {
        if (line.empty()) return;
        if (newest.size() == kEventLogLinesRead) newest.pop_front();
        newest.push_back(parse_event_log_line(line));
    });
    s.events.assign(newest.begin(), newest.end());
}

// The journal of the daemon's service, read through journalctl (an argument vector, no shell).
// False, with a reason, when journalctl cannot run.
bool scan_journal(ConsoleScan &scan, std::string &note) {
    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_CLOEXEC) != 0) {
        note = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    host::UniqueFd read_end(pipe_fds[0]), write_end(pipe_fds[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, write_end.get(), 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    char journalctl[] = "journalctl", unit_opt[] = "-u", unit[] = "failover.service",
         output_opt[] = "-o", output[] = "short-unix", no_pager[] = "--no-pager";
    char *argv[] = {journalctl, unit_opt, unit, output_opt, output, no_pager, nullptr};
    pid_t pid = 0;
    int err = posix_spawnp(&pid, journalctl, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    write_end.reset();
    if (err != 0) {
        note = std::string("journalctl: ") + std::strerror(err);
        return false;
    }
    if (File f{::fdopen(read_end.get(), "r")}) {
        read_end.release();
        for_each_line(f.get(), [&](std::string_view line) { scan_console_line(scan, line); });
    }
    int wstatus = 0;
    while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(wstatus) || WEXITSTATUS(wstatus) != 0) {
        note = "journalctl failed";
        return false;
    }
    return true;
}

// The trailing switches into the active WAN: the first of them is when it took over.
std::string since_from_switches(const std::vector<Switch> &switches, Wan active) {
    if (switches.empty() || switches.back().to != active) return "";
    size_t first = switches.size() - 1;
    while (first > 0 && switches[first - 1].to == active) --first;
    return switches[first].when;
}

// The event log's "[Internet connected]" lines: the first of the newest run naming the active
// WAN's address is when it came up.
std::string since_from_event_log(const std::vector<EventLogEntry> &events,
                                 const std::string &address) {
    if (!has_address(address)) return "";
    const std::string connected = "[Internet connected] IP address: ";
    std::string since;
    for (auto it = events.rbegin(); it != events.rend(); ++it) {
        if (!it->text.starts_with(connected)) continue;
        if (it->text != connected + address + ",") break;
        since = it->when;
    }
    return since;
}

}  // namespace

std::string store_problem() {
    std::string path = nvram_store_path();
    std::string prefix = "cannot read the configuration store " + path + ": ";
    host::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return prefix + std::strerror(errno);
    // A store holds "key\0value\0" pairs (none when nothing was set yet); a file with bytes
    // but not a single pair is something else.
    std::string data;
    char chunk[65536];
    for (;;) {
        ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return prefix + std::strerror(errno);
        if (n == 0) break;
        data.append(chunk, static_cast<size_t>(n));
    }
    if (data.empty()) return "";
    size_t key_end = data.find('\0');
    if (key_end == 0 || key_end == std::string::npos ||
        data.find('\0', key_end + 1) == std::string::npos)
        return prefix + "not a configuration store (no key and value pairs)";
    return "";
}

Status gather(const Options &options) {
    Status s;
    s.daemon = read_daemon();

    s.wan_type = get("wwan_wan_type");
    s.failover_active = s.wan_type == "2";
    s.current_ifname = get("current_ifname");
    if (s.failover_active) {
        if (s.current_ifname == "eth0") s.active = Wan::ethernet;
        if (s.current_ifname == "rm_usb0") s.active = Wan::lte;
    } else {
        // Mode "0" makes the modem the router's WAN; the others keep Ethernet.
        s.active = s.wan_type == "0" ? Wan::lte : Wan::ethernet;
    }

    s.eth_ifname = get("wan_ifname");
    if (s.eth_ifname.empty()) s.eth_ifname = "eth0";
    s.eth_proto = get("wan_proto");
    std::string port = get("wan_port_status");
    s.eth_link = port == "1" ? "up" : port == "0" ? "down" : "unknown";
    s.eth_address = get("wan_ipaddr");
    s.eth_gateway = get("wan_gateway");

    s.lte_ifname = get("wan1_ifname");
    if (s.lte_ifname.empty()) s.lte_ifname = "rm_usb0";
    s.lte_state = get("wwan_runtime_state");
    s.lte_address = get("wan1_ipaddr");
    s.lte_signal = get("wwan_signal_quality");
    s.lte_tech = get("wwan_access_tech");
    s.lte_operator = get("wwan_operator");
    s.module_ready = get("module_ready");
    s.module_reason = get("module_ready_reason");
    s.lte_error = get("wwan_last_error");

    ConsoleScan scan;
    if (!options.console_file.empty()) {
        s.console = options.console_file;
        if (File f{std::fopen(options.console_file.c_str(), "re")})
            for_each_line(f.get(), [&](std::string_view line) { scan_console_line(scan, line); });
        else
            s.console_note = std::strerror(errno);
    } else {
        s.console = "journal of failover.service";
        scan_journal(scan, s.console_note);
    }
    s.test = scan.facts.last_test;
    // Without a console test the store still says how the last one ended.
    if (!s.test) {
        std::string ready = get("ether_wan_ready");
        if (ready == "1" || ready == "0") {
            s.test = ReachabilityTest{};
            s.test->reached = ready == "1";
        }
    }
    if (s.test && s.test->address.empty()) s.test->address = get("wwan_failover_test_ip");
    std::vector<Switch> &all = scan.facts.switches;
    size_t shown = std::min(all.size(), kSwitchesKept);
    s.switches.assign(all.end() - static_cast<long>(shown), all.end());

    read_event_log(s);
    // The daemon's switches mean nothing while failover is off.
    if (s.failover_active) s.since = since_from_switches(all, s.active);
    if (s.since.empty())
        s.since = since_from_event_log(s.events,
                                       s.active == Wan::lte ? s.lte_address : s.eth_address);
    if (s.events.size() > kEventLogLinesShown)
        s.events.erase(s.events.begin(),
                       s.events.end() - static_cast<long>(kEventLogLinesShown));

    if (s.active == Wan::lte) {
        s.online = has_address(s.lte_address);
    } else if (s.active == Wan::ethernet) {
        bool test_failed = s.test && s.test->reached && !*s.test->reached;
        s.online = has_address(s.eth_address) && !test_failed;
    }

    bool modem_ready = s.module_ready == "1";
    if (s.failover_active) {
        s.cable_pull = cable_pull_estimate(s.eth_proto, modem_ready);
        s.failback = failback_estimate(s.eth_proto, modem_ready);
    } else {
        s.cable_pull.why_not = s.failback.why_not = "failover inactive: no switch happens";
    }
    return s;
}

}  // namespace status
