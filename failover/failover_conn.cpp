#include "failover/failover_conn.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "failover/ether_wan.h"
#include "shared/failover_event.h"
#include "failover/lte_control.h"
#include "failover/probes.h"
#include "failover/wan_clients.h"
#include "platform/nvram.h"
#include "shared/file.h"
#include "shared/generated_file.h"
#include "shared/store.h"

namespace {

using store::match;

using store::set;

// ---- Start-up ---------------------------------------------------------------------------

void write_pid_file() {
    GeneratedFile f("/var/run/failover.pid", "failover fopen error");
    if (f) f.printf("%d", getpid());
    // A pid file that could not be written whole is a failed start as much as a failed open.
    if (int err = f ? f.commit() : errno) std::exit(err);
}

void make_event_fifo() {
    // An existing FIFO is kept; the mode is forced so the umask cannot narrow it.
    if (mkfifo(kFailoverFifo, 0664) == 0) {
        chmod(kFailoverFifo, 0664);
        return;
    }
    // Anything else in its place would be read again at every turn of the controller, the
    // same tokens acted on each second: it is replaced.
    struct stat st {};
    if (errno != EEXIST || lstat(kFailoverFifo, &st) != 0 || S_ISFIFO(st.st_mode)) return;
    std::fprintf(stderr, "failover: %s is no FIFO, made again\n", kFailoverFifo);
    if (unlink(kFailoverFifo) != 0 && rmdir(kFailoverFifo) != 0) {
        std::perror(kFailoverFifo);
        return;
    }
    if (mkfifo(kFailoverFifo, 0664) == 0) chmod(kFailoverFifo, 0664);
}

// ---- Monitor ----------------------------------------------------------------------------

void link_sample() {
    if (get_wan_link_status()) {
        std::fprintf(stderr, "@@@@@@@@@@@@@@@@@@Ether port link up@@@@@@@@@@@@@@@@@@@@@@@@@\n");
        set("wan_port_status", "1");
        return;
    }
    std::fprintf(stderr, "@@@@@@@@@@@@@@@@@@Ether port link down@@@@@@@@@@@@@@@@@@@@@@@@@\n");
    set("wan_port_status", "0");
    write_failover_event(match("current_ifname", "eth0") ? event::kLinkDownOnEthernet
                                                         : event::kLinkDownOnLte);
}

// While LTE carries the traffic: start the Ethernet WAN for a test, then take it down again.
bool probe_ethernet_while_on_lte() {
    int result = match("wan_proto", "pppoe") ? PPPoE_connection_probe() : Ether_connection_probe();
    if (match("wan_proto", "dhcp"))
        end_dhcp_client("udhcpc0", "/var/run/udhcpc0.pid");
    else if (match("wan_proto", "pppoe"))
        end_pppd();
    return result == 0;
}

// While Ethernet carries the traffic: a plain ping through the routing table.
bool ping_on_ethernet() {
    if (std::strcmp(probe_address, "0.0.0.0") != 0) {
        int loss = get_ping_result();
        if (loss != 100) {
            std::fprintf(stderr, "\n%s() Get ping result -> %d lost \n", "main", loss);
            set("ether_wan_ready", "1");
            return true;
        }
    }
    std::fprintf(stderr, "\n%s() Get ping result 2 -> %d lost \n", "main", 100);
    set("ether_wan_ready", "0");
    return false;
}

void reachability_test() {
    reset_probe_address();
    select_probe_address();
    bool up = match("current_ifname", "rm_usb0") ? probe_ethernet_while_on_lte() : ping_on_ethernet();
    if (up) {
        std::fprintf(stderr, "@@@@@@@@@@@@@@@@@@Ether Internet up@@@@@@@@@@@@@@@@@@@@@@@@@\n");
        if (match("current_ifname", "rm_usb0")) write_failover_event(event::kInternetUpOnLte);
        return;
    }
    std::fprintf(stderr, "@@@@@@@@@@@@@@@@@@Ether Internet down@@@@@@@@@@@@@@@@@@@@@@@@@\n");
    if (match("current_ifname", "eth0"))
        write_failover_event(event::kInternetDownOnEthernet);
    else if (match("current_ifname", "rm_usb0"))
        write_failover_event(event::kInternetDownOnLte);
}

void lte_supervision(MonitorState &state) {
    if (!match("lte_start", "1")) {
        state.lte_wait = 0;
        return;
    }
    if (match("wwan_runtime_state", "Connected")) {
        state.lte_wait = 0;
        set("lte_start", "0");
        return;
    }
    if (++state.lte_wait > 59) {
        write_failover_event(event::kLteConnectTimedOut);
        state.lte_wait = 0;
    }
}

// ---- Controller -------------------------------------------------------------------------

bool module_ready() { return match("module_ready", "1"); }

void reset_lte_link() {
    stop_lte_dhcp_client();
    lte_disconnect();
}

// Switch to Ethernet after `current_ifname` was set (and, for some events, `lte_start` cleared).
void bring_up_ethernet() {
    stop_ether_wan();
    if (module_ready()) reset_lte_link();
    if (match("wan_proto", "pppoe"))
        start_pppoe_wan();
    else
        Ether_connection_start();
}

void switch_to_ethernet_clearing_lte_start() {
    set("current_ifname", "eth0");
    set("lte_start", "0");
    bring_up_ethernet();
}

// Events "4" and "9": LTE is kept when it is connected with an address.
void keep_or_restart_lte() {
    if (match("wwan_runtime_state", "Connected") && !match("wan1_ipaddr", "0.0.0.0")) return;
    restart_lte();
}

void print_event_line(const char *text) {
    std::fprintf(stderr, "********** %s **********\n", text);
}

}  // namespace

// ---- Start-up ---------------------------------------------------------------------------

int failover_main() {
    if (daemon(1, 1) < 0) {
        int err = errno;
        std::perror("daemon");
        std::exit(err);
    }
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_IGN);
    write_pid_file();
    set("current_ifname", "eth0");
    set("lte_start", "0");
    make_event_fifo();
    set("json_debug", "1");

    std::fflush(nullptr);  // nothing buffered may be written twice after the fork
    pid_t pid = fork();
    if (pid < 0) {
        std::perror("fork");
        return -1;
    }
    if (pid == 0) monitor_loop();
    controller_loop();
}

// ---- Monitor ----------------------------------------------------------------------------

void monitor_tick(MonitorState &state) {
    if (match("wwan_wan_type", "2")) {
        if (state.tick % 7 == 0) link_sample();
        bool pppoe_starting = false;
        if (state.tick % 90 == 0 && match("wan_port_status", "1")) {
            // A PPPoE start in progress skips the test and the LTE supervision of this tick.
            pppoe_starting = match("wan_proto", "pppoe") && match("pppoe_starting", "1");
            if (!pppoe_starting) reachability_test();
        }
        if (!pppoe_starting) lte_supervision(state);
    }
    if (++state.tick > 90) state.tick = 1;
    sleep(1);
}

void monitor_loop() {
    std::fprintf(stderr,
                 "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXChild process %d...\n", 1425);
    MonitorState state;
    for (;;) monitor_tick(state);
}

// ---- Controller -------------------------------------------------------------------------

void switch_to_lte() {
    set("current_ifname", "rm_usb0");
    if (module_ready()) reset_lte_link();
    stop_ether_wan();
    if (module_ready()) lte_connect();
}

void switch_to_ethernet() {
    set("current_ifname", "eth0");
    bring_up_ethernet();
}

void restart_lte() {
    if (!module_ready()) return;
    reset_lte_link();
    lte_connect();
}

void handle_failover_event(char code) {
    switch (code) {
        case event::kLinkUpOnEthernet:
            print_event_line("Ethernet WAN link up && current WAN is Ethernet WAN");
            break;
        case event::kLinkUpOnLte:
            print_event_line("Ethernet WAN link up && current WAN is LTE WAN");
            break;
        case event::kLinkDownOnEthernet:
            print_event_line("Ethernet WAN link down && current WAN is Ethernet WAN");
            switch_to_lte();
            break;
        case event::kLinkDownOnLte:
            print_event_line("Ethernet WAN link down && current WAN is LTE WAN");
            keep_or_restart_lte();
            break;
        case event::kLteUp:
            print_event_line("LTE connection is up");
            set("lte_start", "0");
            break;
        case event::kLteDown:
            print_event_line("LTE connection is down");
            if (match("wan_port_status", "1")) switch_to_ethernet();
            break;
        case event::kInternetUpOnLte:
            print_event_line("Ethernet WAN Internet is up && current WAN is LTE WAN");
            switch_to_ethernet_clearing_lte_start();
            break;
        case event::kInternetDownOnEthernet:
            print_event_line("Ethernet WAN Internet is down && current WAN is Ethernet WAN");
            switch_to_lte();
            break;
        case event::kInternetDownOnLte:
            print_event_line("Ethernet WAN Internet is down && current WAN is LTE WAN");
            keep_or_restart_lte();
            break;
        case event::kLteConnectTimedOut:
            print_event_line(
                "current WAN is LTE WAN && n seconds probing LTE connection failed");
            if (match("wan_port_status", "1")) switch_to_ethernet_clearing_lte_start();
            break;
        default:
            break;
    }
}

std::vector<std::string_view> split_failover_tokens(std::string_view data) {
    data = data.substr(0, data.find('\0'));
    std::vector<std::string_view> tokens;
    while (!data.empty()) {
        std::size_t start = data.find_first_not_of(':');
        if (start == std::string_view::npos) break;
        data.remove_prefix(start);
        std::size_t end = data.find(':');
        tokens.push_back(data.substr(0, end));
        data.remove_prefix(end == std::string_view::npos ? data.size() : end);
    }
    return tokens;
}

void handle_failover_batch(const char *data) {
    std::vector<std::string_view> tokens = split_failover_tokens(data);
    if (tokens.empty())
        std::fprintf(stderr, "@@@@@@@@@@@@@@@ read token = %s \n", "(null)");
    else
        std::fprintf(stderr, "@@@@@@@@@@@@@@@ read token = %.*s \n",
                     static_cast<int>(tokens[0].size()), tokens[0].data());
    for (std::string_view token : tokens) handle_failover_event(token[0]);
}

void controller_loop() {
    std::fprintf(stderr,
                 "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXParent process %d...\n", 1682);
    for (;;) {
        if (!match("wwan_wan_type", "2")) {
            sleep(1);
            continue;
        }
        File fifo = open_file(kFailoverFifo, "r");  // blocks until a writer opens it
        if (!fifo) {
            const int err = errno;
            std::perror("Error opening fifo for reading...");
            // Removed under us: made again, or the monitor's tokens would never arrive.
            if (err == ENOENT) make_event_fifo();
            sleep(1);
            continue;
        }
        char data[1024 + 1] = {};
        size_t count = std::fread(data, 1, 1024, fifo.get());
        std::fprintf(stderr, "@@@@@@@@@@@@@@@ read data = %s \n", data);
        if (count < 1) {
            std::fprintf(stderr, "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXnothing read!\n");
        } else {
            data[count] = '\0';
            handle_failover_batch(data);
        }
        fifo.reset();
        sleep(1);
    }
}
