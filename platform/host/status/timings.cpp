// How long a cable pull and a failback take with today's settings, from the daemon's fixed
// pace: one-second ticks, the link sampled at ticks 7, 14, ..., 84 of a 90-tick cycle, the
// reachability test at tick 90, and the waits inside the switches.
#include "platform/host/status/status.h"

#include <cstdio>

namespace status {
namespace {

// The longest stretch between two link samples: from tick 84 across the wrap to tick 7.
constexpr double kLinkSampleGap = 13;
// From a cable that returns until the reachability test that sees its link: the test at tick 90
// needs the sample at tick 84 to have found the link; just after that sample, the next cycle's.
constexpr double kTestWaitBest = 6;
constexpr double kTestWaitWorst = 6 + 90;
// Every request to the LTE manager pauses 0.5 s after making its socket.
constexpr double kLteRequest = 0.5;
// The DHCP client's kill sequence: SIGUSR2, 1 s, SIGKILL, 1 s.
constexpr double kDhcpKill = 2;
// pppd: SIGTERM, then 2 s whether or not it ran.
constexpr double kPppdStop = 2;
// After the connect request, the LTE state is looked at every 3 s, 5 times at most.
constexpr double kLteFirstLook = 3;
constexpr double kLteWait = 15;
// The probe's address wait: 5 passes of 2 s (Ethernet: sleep, then look; PPPoE: look, then
// sleep, after an 8 s start).
constexpr double kAddressPass = 2;
constexpr double kAddressWait = 10;
constexpr double kPppoeStart = 8;
// Four echo requests one second apart.
constexpr double kPings = 3;
// `start_pppoe_wan` holds `pppoe_starting` for 8 s.
constexpr double kPppoeHold = 8;

bool probe_known(std::string_view proto) {
    return proto == "dhcp" || proto == "static" || proto == "pppoe" || proto == "pptp" ||
           proto == "l2tp" || proto == "bpa";
}

}  // namespace

double Estimate::best() const {
    double sum = 0;
    for (const Step &step : steps) sum += step.best;
    return sum;
}

double Estimate::worst() const {
    double sum = 0;
    for (const Step &step : steps) sum += step.worst;
    return sum;
}

Estimate cable_pull_estimate(std::string_view proto, bool modem_ready) {
    Estimate e;
    e.until = "LTE connected";
    if (!modem_ready) {
        e.why_not = "no LTE modem ready: offline until the cable returns";
        return e;
    }
    e.possible = true;
    e.steps.push_back({"link sample", 0, kLinkSampleGap});
    // A stale LTE DHCP client is ended first; normally none runs while on Ethernet.
    e.steps.push_back({"LTE stop", kLteRequest, kDhcpKill + kLteRequest});
    if (proto == "dhcp") e.steps.push_back({"DHCP stop", kDhcpKill, kDhcpKill});
    if (proto == "pppoe") e.steps.push_back({"pppd stop", kPppdStop, kPppdStop});
    e.steps.push_back({"LTE connect", kLteRequest + kLteFirstLook, kLteRequest + kLteWait});
    return e;
}

Estimate failback_estimate(std::string_view proto, bool modem_ready) {
    Estimate e;
    e.until = "Ethernet started";
    if (!probe_known(proto)) {
        e.why_not = "no Ethernet test with this wan_proto";
        return e;
    }
    e.possible = true;
    e.steps.push_back({"to test", kTestWaitBest, kTestWaitWorst});
    if (proto == "pppoe") {
        e.steps.push_back({"PPPoE up", kPppoeStart, kPppoeStart + kAddressWait});
    } else if (proto == "static") {
        // The static address is in place before the first look.
        e.steps.push_back({"address", kAddressPass, kAddressPass});
    } else {
        e.steps.push_back({"address", kAddressPass, kAddressWait});
    }
    e.steps.push_back({"ping", kPings, kPings});
    // The monitor ends the test's client; then the switch stops the Ethernet WAN again, which
    // for DHCP finds the client gone and for PPPoE waits its 2 s anyway.
    if (proto == "dhcp") e.steps.push_back({"DHCP stop", kDhcpKill, kDhcpKill});
    if (proto == "pppoe") e.steps.push_back({"pppd stop", 2 * kPppdStop, 2 * kPppdStop});
    // The LTE DHCP client may already be gone (a DHCP stop's "killall udhcpc" ends it too).
    if (modem_ready) e.steps.push_back({"LTE stop", kLteRequest, kDhcpKill + kLteRequest});
    if (proto == "pppoe") e.steps.push_back({"PPPoE hold", kPppoeHold, kPppoeHold});
    return e;
}

std::string explain(const Estimate &estimate, bool worst) {
    std::string text;
    for (const Step &step : estimate.steps) {
        double seconds = worst ? step.worst : step.best;
        if (seconds == 0) continue;
        char number[32];
        std::snprintf(number, sizeof number, "%g ", seconds);
        if (!text.empty()) text += ", ";
        text += number + step.what;
    }
    return text;
}

}  // namespace status
