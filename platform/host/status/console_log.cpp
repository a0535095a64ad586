// The daemon's console lines that tell about reachability tests and switches, and the
// router's event-log lines.
#include "platform/host/status/status.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

namespace status {
namespace {

constexpr std::string_view kLinkUp = "@@@@@@@@@@@@@@@@@@Ether port link up@";
constexpr std::string_view kLinkDown = "@@@@@@@@@@@@@@@@@@Ether port link down@";
constexpr std::string_view kInternetUp = "@@@@@@@@@@@@@@@@@@Ether Internet up@";
constexpr std::string_view kInternetDown = "@@@@@@@@@@@@@@@@@@Ether Internet down@";
constexpr std::string_view kPing = "get_ping_result() [IP=";
constexpr std::string_view kProbeLoss = "Get ping result -> ";
constexpr std::string_view kProbeLoss2 = "Get ping result 2 -> ";
constexpr std::string_view kControllerStart =
    "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXParent process";

// The controller's event lines that switch (those of "a" and "6" only while the port has link).
struct EventLine {
    std::string_view text;
    Wan to;
    const char *cause;
    bool needs_link;
};
constexpr EventLine kEventLines[] = {
    {"********** Ethernet WAN link down && current WAN is Ethernet WAN **********", Wan::lte,
     "Ethernet link down", false},
    {"********** Ethernet WAN Internet is down && current WAN is Ethernet WAN **********",
     Wan::lte, "Ethernet Internet down", false},
    {"********** Ethernet WAN Internet is up && current WAN is LTE WAN **********",
     Wan::ethernet, "Ethernet Internet back", false},
    {"********** current WAN is LTE WAN && n seconds probing LTE connection failed **********",
     Wan::ethernet, "LTE not connected in 60 s", true},
    {"********** LTE connection is down **********", Wan::ethernet, "LTE connection down", true},
};

bool contains(std::string_view line, std::string_view text) {
    return line.find(text) != std::string_view::npos;
}

// A number of at most 3 digits after `marker`, or -1.
int percent_after(std::string_view line, std::string_view marker) {
    size_t at = line.find(marker);
    if (at == std::string_view::npos) return -1;
    std::string_view rest = line.substr(at + marker.size());
    int value = 0;
    size_t digits = 0;
    while (digits < rest.size() && digits < 4 && rest[digits] >= '0' && rest[digits] <= '9')
        value = value * 10 + (rest[digits++] - '0');
    if (digits == 0 || digits > 3 || value > 100) return -1;
    return value;
}

std::string local_time(double seconds) {
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm local{};
    if (!localtime_r(&t, &local)) return "";
    char text[32];
    if (std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0) return "";
    return text;
}

// Splits off a leading "SECONDS[.FRACTION] " time; "" when the line has none.
std::string take_time(std::string_view &line) {
    size_t i = 0;
    while (i < line.size() && line[i] >= '0' && line[i] <= '9') ++i;
    if (i == 0 || i > 12) return "";
    size_t end = i;
    if (end < line.size() && line[end] == '.') {
        ++end;
        while (end < line.size() && line[end] >= '0' && line[end] <= '9') ++end;
    }
    if (end >= line.size() || line[end] != ' ') return "";
    std::string number(line.substr(0, end));
    line.remove_prefix(end + 1);
    return local_time(std::strtod(number.c_str(), nullptr));
}

void add_switch(ConsoleFacts &facts, Switch entry) {
    // Only the last few are shown; a long journal must not grow the list without bound.
    if (facts.switches.size() == kSwitchesKept * 4)
        facts.switches.erase(facts.switches.begin(),
                             facts.switches.begin() + static_cast<long>(kSwitchesKept * 3));
    facts.switches.push_back(std::move(entry));
}

}  // namespace

void scan_console_line(ConsoleScan &scan, std::string_view line) {
    std::string when = take_time(line);

    if (contains(line, kLinkUp)) {
        scan.link = 1;
    } else if (contains(line, kLinkDown)) {
        scan.link = 0;
    } else if (contains(line, kPing)) {
        size_t start = line.find(kPing) + kPing.size();
        size_t end = line.find(',', start);
        if (end != std::string_view::npos && end - start <= 15)
            scan.pending_address = std::string(line.substr(start, end - start));
        int loss = percent_after(line, "packets received, ");
        if (loss >= 0) scan.pending_loss = loss;
    } else if (contains(line, kProbeLoss2) || contains(line, kProbeLoss)) {
        int loss = percent_after(line, contains(line, kProbeLoss2) ? kProbeLoss2 : kProbeLoss);
        if (loss >= 0) scan.pending_loss = loss;
    } else if (contains(line, kInternetUp) || contains(line, kInternetDown)) {
        ReachabilityTest test;
        test.when = when;
        test.address = scan.pending_address;
        test.loss = scan.pending_loss;
        test.reached = contains(line, kInternetUp);
        scan.facts.last_test = test;
        scan.pending_address.clear();
        scan.pending_loss = -1;
    } else if (contains(line, kControllerStart)) {
        // Start-up sets `current_ifname` to eth0.
        add_switch(scan.facts, {when, Wan::ethernet, "daemon started"});
        scan.link = -1;
        scan.pending_address.clear();
        scan.pending_loss = -1;
    } else {
        for (const EventLine &event : kEventLines) {
            if (!contains(line, event.text)) continue;
            // Without link the controller leaves the WAN as it is; unknown link: not counted.
            if (event.needs_link && scan.link != 1) break;
            add_switch(scan.facts, {when, event.to, event.cause});
            break;
        }
    }
}

EventLogEntry parse_event_log_line(std::string_view line) {
    EventLogEntry entry;
    auto digit = [&](size_t i) { return line[i] >= '0' && line[i] <= '9'; };
    bool stamped = line.size() > 20 && line[4] == '-' && line[7] == '-' && line[10] == ' ' &&
                   line[13] == ':' && line[16] == ':' && line[19] == ' ';
    for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9, 11, 12, 14, 15, 17, 18})
        stamped = stamped && digit(i);
    if (!stamped) {
        entry.text = std::string(line);
        return entry;
    }
    entry.when = std::string(line.substr(0, 19));
    line.remove_prefix(20);
    if (line.starts_with("[code ")) {
        size_t close = line.find("] ");
        if (close != std::string_view::npos) line.remove_prefix(close + 2);
    }
    entry.text = std::string(line);
    return entry;
}

}  // namespace status
