// failover-status: what the router's failover records, on one screen or as one JSON object.
// Host platform only. Everything here reads; nothing changes the daemon's state.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace status {

enum class Wan { unknown, ethernet, lte };

// Times are local "YYYY-MM-DD HH:MM:SS" texts; "" when no source says.

struct Switch {
    std::string when;
    Wan to = Wan::unknown;
    std::string cause;
};

struct ReachabilityTest {
    std::string when;
    std::string address;          // "" unknown
    int loss = -1;                // percent; -1 unknown
    std::optional<bool> reached;  // unset: no test known
};

// What the daemon's console says: the last reachability test and the switches (oldest first).
struct ConsoleFacts {
    std::optional<ReachabilityTest> last_test;
    std::vector<Switch> switches;
};

// Reading state carried from one console line to the next.
struct ConsoleScan {
    ConsoleFacts facts;
    std::string pending_address;  // of the test in progress
    int pending_loss = -1;
    int link = -1;  // last link sample: 1 up, 0 down, -1 none seen
};

constexpr std::size_t kSwitchesKept = 4;
constexpr std::size_t kEventLogLinesShown = 1;

// One console line, with or without a leading "SECONDS[.FRACTION] " time (a time-stamped log,
// or the journal's short-unix output).
void scan_console_line(ConsoleScan &scan, std::string_view line);

struct EventLogEntry {
    std::string when;
    std::string text;
};

// One event-log line: "YYYY-MM-DD HH:MM:SS [code 0x...] TEXT".
EventLogEntry parse_event_log_line(std::string_view line);

// A switch duration estimate: seconds from the cable event until the daemon's switch is done.
struct Step {
    std::string what;
    double best = 0;
    double worst = 0;
};

struct Estimate {
    bool possible = false;
    std::string why_not;  // when not possible
    std::string until;    // what "done" means
    std::vector<Step> steps;
    double best() const;
    double worst() const;
};

// Ethernet cable pulled while Ethernet carries the traffic, until LTE is connected.
Estimate cable_pull_estimate(std::string_view wan_proto, bool modem_ready);
// Cable back while LTE carries the traffic, until the Ethernet WAN is started again.
Estimate failback_estimate(std::string_view wan_proto, bool modem_ready);

// "13 link sample, 2.5 LTE stop, ..." : the steps that take time in the chosen case.
std::string explain(const Estimate &estimate, bool worst);

struct Daemon {
    bool running = false;
    int pid = 0;         // 0: no usable pid file
    std::string note;    // why it is not running
    std::string started; // the pid file's time
};

struct Status {
    Daemon daemon;
    std::string wan_type;  // wwan_wan_type
    bool failover_active = false;
    Wan active = Wan::unknown;
    std::string current_ifname;
    std::string since;
    bool online = false;

    std::string eth_ifname, eth_proto, eth_link, eth_address, eth_gateway;
    std::optional<ReachabilityTest> test;

    std::string lte_ifname, lte_state, lte_address, lte_signal, lte_tech, lte_operator;
    std::string module_ready, module_reason, lte_error;

    std::string console;       // where the console came from
    std::string console_note;  // why there is none ("" when read)
    std::vector<Switch> switches;
    std::string event_log;     // its path
    std::string event_log_note;
    std::vector<EventLogEntry> events;

    Estimate cable_pull, failback;
};

struct Options {
    bool json = false;
    std::string console_file;  // "" : the journal
};

// Store problem as a message naming the path and the system error; "" when it can be read.
std::string store_problem();

// Everything else. The console file must be readable (checked by the caller).
Status gather(const Options &options);

std::string render_screen(const Status &status);
std::string render_json(const Status &status);

}  // namespace status
