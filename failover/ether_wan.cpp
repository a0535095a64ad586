// Start, probe and stop of the Ethernet WAN: hook links, MAC, address keys, the protocol's
// client, the reachability probe through a pinned host route, and the client's stop.
#include "failover/ether_wan.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

#include "failover/probes.h"
#include "failover/wan_clients.h"
#include "platform/nat.h"
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "services/dns.h"
#include "services/wan_up.h"
#include "shared/command.h"
#include "shared/file.h"
#include "shared/ifconfig.h"
#include "wan/ppp_sessions.h"
#include "shared/store.h"
#include "shared/settings.h"

namespace {

using store::get;
using store::match;
using store::set;

// Interface name, protocol and MAC text are read into 20-byte buffers: a longer value is cut
// to 19 characters, and the cut value is what the rest of the start uses.
using ShortValue = std::array<char, 20>;
ShortValue read_short(const char *key) { return store::read_value<20>(key); }

// Makes a directory with exactly `mode` (not narrowed by the umask); an existing one is kept.
void make_directory(const char *path, mode_t mode) {
    if (mkdir(path, mode) == 0) chmod(path, mode);
}

// Runs `args` in the background without a shell; its pid is not needed afterwards.
void start_background(std::vector<std::string> args) {
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int pid = 0;
    _eval(argv.data(), nullptr, 0, &pid);
}

void start_daemon_to_console(std::vector<std::string> args) {
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    _eval_daemon(argv.data(), ">/dev/console", 0, nullptr, 0);
}

// The Ethernet WAN's DHCP client, with the host name only when one is configured.
void start_udhcpc0(const char *ifname) {
    std::vector<std::string> args = {"udhcpc", "-i", ifname, "-p", "/var/run/udhcpc0.pid",
                                     "-s", "/tmp/udhcpc"};
    std::string host = get("system_name");
    if (!host.empty()) {
        args.push_back("-H");
        args.push_back(host);
    }
    start_background(std::move(args));
}

// PPTP and L2TP are configured in a child of their own, which exits when the session start
// returns; nobody waits for it.
void start_tunnel_in_child(const char *routine, const char *ifname, bool l2tp) {
    std::fflush(nullptr);  // the child must not repeat buffered lines
    pid_t pid = fork();
    if (pid < 0) {
        std::fprintf(stderr, "%s: fork: %s\n", routine, std::strerror(errno));
        return;
    }
    if (pid > 0) return;
    if (l2tp)
        start_l2tp_session(ifname, 0);
    else
        start_pptp_session(ifname, 0);
    std::fflush(nullptr);
    _exit(0);
}

void make_hook_links() {
    make_directory("/tmp/ppp", 0777);
    make_symlink("/sbin/vesk_service", "/tmp/ppp/ip-up");
    make_symlink("/sbin/vesk_service", "/tmp/ppp/ip-down");
    make_symlink("/sbin/vesk_service", "/tmp/udhcpc");
    if (in_japan_region()) {
        make_directory("/tmp/ppp/peers", 0777);
        make_symlink("/usr/sbin/pppoecd", "/tmp/pppoecd2");
    }
}

void program_wan_mac(const char *routine, const char *ifname) {
    ShortValue text = read_short(match("wan_hwaddr_sel", "0") ? "et1macaddr" : "wan_hwaddr2");
    unsigned char mac[6] = {};
    if (ether_atoe(text.data(), mac))
        set_eth_mac(ifname, mac);
    else
        std::fprintf(stderr, "%s: MAC address \"%s\" unparsable, %s keeps its own\n", routine,
                     text.data(), ifname);
    set("wan_hwaddr", text.data());
}

void reset_address_keys(bool is_static) {
    if (is_static) {
        set("static_if_status", "0");
        set("wan_ipaddr", get("wan_static_ipaddr"));
        set("wan_netmask", get("wan_static_netmask"));
        set("wan_gateway", get("wan_static_gateway"));
        set("wan_dns", get("wan_static_dns"));
        set("wan_ipaddr_old", "0.0.0.0");
        return;
    }
    for (const char *key :
         {"wan_ipaddr", "wan_netmask", "wan_gateway", "wan_dns", "wan_ipaddr_old"})
        set(key, "0.0.0.0");
}

void start_ipv6_capture(const char *routine) {
    if (!match("hidden_page_debug_ipv6", "1")) return;
    if (!match("ipv6_proto", "auto") && !match("ipv6_proto", "dhcp")) return;
    shell::run(routine,
               "tcpdump -i eth0 'ether[12:2] != 0x8100' and 'ether[14:2] != 0x0001' "
               "-w /tmp/IPv6_autodetect.cap -C 5 -W 3 &");
    sleep(1);
}

// The common start sequence of Ether_connection_start (`probe` false) and
// Ether_connection_probe. Nothing when the protocol's client was started; for an unknown
// protocol, the character count of the line that says so.
std::optional<int> start_ether_wan(const char *routine, bool probe) {
    if (probe) agApi_natProbeHook("eth0");
    set("second_wan_status", "0");
    set("first_wan_status", "0");
    if (!match("ipv6ready", "1")) ipv6_prepare_wan();
    make_hook_links();
    if (!probe) agApi_natSetRegion(in_japan_region() ? "Japanese" : get("sku_lang"));

    ShortValue ifname_buf = read_short("wan_ifname");
    ShortValue proto_buf = read_short("wan_proto");
    const char *ifname = ifname_buf.data();
    const std::string proto = proto_buf.data();

    program_wan_mac(routine, ifname);
    reset_address_keys(proto == "static");
    start_ipv6_capture(routine);
    ifconfig(ifname, kWanInterfaceFlags, nullptr, nullptr);
    // Taken down again right after being raised when IPv6 is ready; kept as the router does it.
    if (match("ipv6ready", "1")) start_daemon_to_console({"ifconfig", ifname, "down"});

    if (proto == "pppoe") {
        if (match("static_pppoe_enable", "1")) {
            ifconfig(ifname, kWanInterfaceFlags, get("pppoe_user_ip"),
                     get("pppoe_localnetmask"));
            second_wan_up(ifname);
        }
        start_pppoe_session(ifname, 0);
    } else if (proto == "dhcp") {
        std::puts("Start DHCP client daemon");
        start_udhcpc0(ifname);
    } else if (proto == "pptp") {
        start_tunnel_in_child(routine, ifname, false);
    } else if (proto == "l2tp") {
        start_tunnel_in_child(routine, ifname, true);
    } else if (proto == "bpa") {
        start_udhcpc0(ifname);
        agApi_setDeviceListenPort(1, 5050, 1);
        if (match("bpa_dod", "0") || match("bpa_dod", "1") ||
            (match("bpa_dod", "2") && match("run_test", "1")))
            start_daemon_to_console({"bpa_monitor"});
    } else if (proto == "static") {
        ifconfig(ifname, kWanInterfaceFlags, get("wan_ipaddr"),
                 get("wan_netmask"));
        wan_up(ifname);
        if (!probe) set("static_if_status", "1");
    } else {
        return std::printf("%s: Unknown protocol (%s)!\n", routine, proto.c_str());
    }
    return std::nullopt;
}

// The end of both probes: a host route to the probe address through the Ethernet WAN, the
// ping over it, the verdict in `ether_wan_ready`, and the route taken away again.
int probe_tail(const char *routine, bool pppoe) {
    add_probing_route();
    int loss = 100;
    bool reachable = false;
    if (test_probing_route() == 0) {
        loss = get_ping_result();
        reachable = loss != 100;
    }
    if (reachable) {
        std::fprintf(stderr, "\n%s() Get ping result -> %d lost \n", routine, loss);
        set("ether_wan_ready", "1");
        del_probing_route();
        return 0;
    }
    if (pppoe)
        std::fprintf(stderr, "\n%s() Get ping result 2 -> %d lost \n", routine, 100);
    else
        std::fprintf(stderr, "\n%s() Get ping result -> %d lost \n", routine, 100);
    set("ether_wan_ready", "0");
    del_probing_route();
    return -1;
}

std::string wan_ipaddr() { return get("wan_ipaddr"); }

// Prints a command line as "<n>. cmd == ..." and runs it; nothing runs when a value is refused.
void run_numbered(const char *routine, int n, const char *format,
                  std::initializer_list<shell::Arg> args) {
    auto command = shell::format(routine, format, args);
    if (!command) return;
    std::printf("%d. cmd == %s\n", n, command->c_str());
    shell::run(routine, "%s", {shell::trusted(*command)});
}

void stop_static_wan() {
    const char *routine = "stop_ether_wan";
    // What ran is kept as the next static start's settings.
    set("wan_static_ipaddr", get("wan_ipaddr"));
    set("wan_static_netmask", get("wan_netmask"));
    set("wan_static_gateway", get("wan_gateway"));
    set("wan_static_dns", get("wan_dns"));

    shell::run(routine, "route delete default");

    const std::string ifname = get("wan_ifname");
    const std::string netmask = get("wan_netmask");
    run_numbered(routine, 1, "route del -host %s gw 0.0.0.0 %s",
                 {shell::ipv4(get("wan_gateway"), "wan_gateway"), shell::ifname(ifname, "wan_ifname")});

    in_addr addr{};
    in_addr mask{};
    const std::string ipaddr = get("wan_ipaddr");
    if (inet_pton(AF_INET, ipaddr.c_str(), &addr) != 1 ||
        inet_pton(AF_INET, netmask.c_str(), &mask) != 1) {
        std::fprintf(stderr,
                     "%s: no network route to delete for address \"%.64s\" netmask \"%.64s\"\n",
                     routine, ipaddr.c_str(), netmask.c_str());
        return;
    }
    in_addr network{};
    network.s_addr = addr.s_addr & mask.s_addr;
    char network_text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &network, network_text, sizeof network_text);
    run_numbered(routine, 2, "route del -net %s netmask %s gw 0.0.0.0 %s",
                 {shell::ipv4(network_text), shell::ipv4(netmask, "wan_netmask"), shell::ifname(ifname, "wan_ifname")});
}

}  // namespace

int wait_for_wan_address(bool sleep_first, const std::function<std::string()> &read_address) {
    int pass = 0;
    for (; pass < 5; ++pass) {
        if (sleep_first) sleep(2);
        if (read_address() != "0.0.0.0") break;
        if (!sleep_first) sleep(2);
    }
    // An address seen only in the last pass is looked at once more; kept as the router does it.
    if (pass == 4 && read_address() == "0.0.0.0") {
        std::puts("WAN start failed! ");
        return -1;
    }
    return 0;
}

void Ether_connection_start() { start_ether_wan("Ether_connection_start", false); }

int Ether_connection_probe() {
    const char *routine = "Ether_connection_probe";
    if (auto unknown = start_ether_wan(routine, true)) return *unknown;
    if (wait_for_wan_address(true, wan_ipaddr) != 0) return -1;
    return probe_tail(routine, false);
}

void start_pppoe_wan() {
    set("pppoe_starting", "1");
    ShortValue ifname = read_short("wan_ifname");
    set("wan_ipaddr_old", "0.0.0.0");
    start_pppoe_session(ifname.data(), 0);
    sleep(8);
    set("pppoe_starting", "0");
}

int PPPoE_connection_probe() {
    const char *routine = "PPPoE_connection_probe";
    ShortValue ifname = read_short("wan_ifname");
    set("pppoe_starting", "0");
    start_pppoe_session(ifname.data(), 0);
    sleep(8);
    if (wait_for_wan_address(false, wan_ipaddr) != 0) return -1;
    return probe_tail(routine, true);
}

void stop_ether_wan() {
    if (match("wan_proto", "dhcp")) {
        const std::string ifname = get("wan_ifname");
        if (end_dhcp_client("udhcpc0", "/var/run/udhcpc0.pid")) remove_wan_dns(ifname.c_str());
        // Deliberately broad: it ends the LTE interface's client too.
        shell::run("stop_ether_wan", "killall udhcpc");
    } else if (match("wan_proto", "static")) {
        stop_static_wan();
    } else if (match("wan_proto", "pppoe")) {
        end_pppd();
    }
}
