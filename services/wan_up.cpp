// The WAN-up sequence: feature bits, routes, resolver, NAT and DMZ, event log, the daemons that
// care about a new address, and the WAN-dependent services.
#include "services/wan_up.h"

#include <arpa/inet.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "shared/failover_event.h"
#include "ipv6/tunnels.h"
#include "platform/nat.h"
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "services/dns.h"
#include "services/openvpn.h"
#include "services/rip.h"
#include "services/timesync.h"
#include "shared/command.h"
#include "shared/file.h"
#include "shared/store.h"
#include "shared/settings.h"

namespace {

constexpr const char *kLteIfname = "rm_usb0";
constexpr const char *kTcScript = "/tmp/tc_cmd";
constexpr const char *kDdnsPidFile = "/var/run/ddnsd.pid";
constexpr unsigned int kEventLogWanUp = 0x80003;
constexpr int kTcTries = 11;

// The traffic-control script of a static or DHCP WAN runs once per process: its rules outlive
// a lease renewal. PPP WANs get new interfaces and need it every time.
int tc_first_run = 1;

using store::match;

using store::get;


// add_routes for the WAN and for the LAN bridge, whose name is cut to 19 characters.
void add_wan_and_lan_routes(const char *ifname) {
    add_routes(ifname);
    char lan_ifname[20];
    store::read("lan_ifname", lan_ifname, sizeof lan_ifname);
    add_routes(lan_ifname);
}

unsigned int feature_mask(bool is_ether) {
    unsigned int mask = 0;
    bool fastpath_proto =
        !is_ether || match("wan_proto", "dhcp") || match("wan_proto", "static") ||
        match("wan_proto", "pppoe");
    bool pppoe_tagged = match("wan_proto", "pppoe") &&
                        (match("enable_vlan", "enable") || match("iptv_enabled", "1"));
    if (!match("vesknat_ctf_disable", "1") && fastpath_proto && match("bs_enable", "0") &&
        !match("traffic_enable", "1") && !match("video_qos_enable", "1") &&
        !match("qos_down_streaming_enable", "1") && !pppoe_tagged &&
        !match("access_control_mode", "1"))
        mask |= NAT_FEATURE_FASTPATH;
    if (!match("vesknat_nat4lanonly_disable", "1")) mask |= NAT_FEATURE_LAN_ONLY;
    return mask;
}

void set_features(bool is_ether) {
    unsigned int mask = feature_mask(is_ether);
    if (match("broadstream_iqos_enable", "1")) {
        // Printed for either WAN; the text is what the router has always shown.
        std::printf("%s(%d) restart iqos for mobile WAN\n", "wan_up", 3209);
        iqos_service("restart_iqos");
        agApi_feature_set(mask);
    } else {
        agApi_feature_set(mask | NAT_FEATURE_NO_IQOS);
    }
}

void add_ether_routes(const char *ifname) {
    if (wan_proto_is_ppp()) {
        write_ppp_resolv(1);
        shell::run("wan_up", "route delete default");
        store::set("first_wan_status", "1");
        shell::run("wan_up", "route add default dev %s", {shell::ifname(ifname, "the interface name")});
        return;
    }
    std::string gateway = get("wan_gateway");
    shell::run("wan_up", "route add -host %s dev %s",
               {shell::ipv4(gateway, "the gateway"), shell::ifname(get("wan_ifname"), "wan_ifname")});
    shell::run("wan_up", "route add default gw %s", {shell::ipv4(gateway, "the gateway")});
}

void add_lte_routes() {
    std::string gateway = get("wan1_gateway");
    shell::run("wan_up", "route add -host %s dev %s",
               {shell::ipv4(gateway, "the gateway"), shell::ifname(get("wan1_ifname"), "wan1_ifname")});
    shell::run("wan_up", "route add default gw %s", {shell::ipv4(gateway, "the gateway")});
}

// The dynamic-DNS client re-registers the new address on SIGUSR2. No pid file: not running.
void signal_ddns() {
    File f = open_file(kDdnsPidFile, "r");
    if (!f) return;
    char line[50];  // the first line, at most 49 characters
    bool got_line = std::fgets(line, sizeof line, f.get()) != nullptr;
    f.reset();
    if (!got_line) return;
    errno = 0;
    char *end = nullptr;
    long pid = std::strtol(line, &end, 10);
    if (end == line) return;  // no number: nothing to signal
    if (errno == ERANGE || pid > INT_MAX) {
        std::fprintf(stderr, "wan_up: %s: process id out of range\n", kDdnsPidFile);
        return;
    }
    if (pid > 0) kill(static_cast<pid_t>(pid), SIGUSR2);
}

void restart_nat(bool is_ether, const char *ifname) {
    if (is_ether && in_japan_region() && match("wan_proto", "pppoe")) {
        mp_start_nat(ifname);
        return;
    }
    // With both radios bridging in WDS the router forwards, and its NAT is left as it is.
    if (match("wla_wds_enable", "0") || match("wla_wds_mode", "2") || match("wlg_wds_enable", "0") ||
        match("wlg_wds_mode", "2"))
        start_wan_nat(is_ether ? 1 : 0);
}

void log_connected(const std::string &address, bool write) {
    if (!write) return;
    std::string text = "[Internet connected] IP address: " + address + ",";
    zerinWriteLog(text.c_str(), static_cast<int>(text.size()), kEventLogWanUp);
}

// Event-log line and the address-change signals; nothing while the WAN has no address.
void report_address(bool is_ether) {
    bool dhcp = match("wan_proto", "dhcp");
    if (is_ether) {
        if (match("wan_ipaddr", "0.0.0.0")) return;
        log_connected(get("wan_ipaddr"), !dhcp || !match("dhcp_ip_unchange", "1"));
    } else {
        if (match("wan1_ipaddr", "0.0.0.0")) return;
        log_connected(get("wan1_ipaddr"), !match("dhcp_ip_unchange", "1"));
    }
    shell::run("wan_up", "killall -SIGUSR2 check_fw");
    if (!dhcp || !is_ether) return;

    // start_wan_nat has already stored the current address as the old one by now.
    char old_address[32];
    store::read("wan_ipaddr_old", old_address, sizeof old_address);
    std::string address = get("wan_ipaddr");
    if (address != old_address) {
        std::printf("%s: IP addr changed! (%s->%s) do arp_check!\n", "wan_up", old_address,
                    address.c_str());
        shell::run("wan_up", "killall -SIGUSR1 arp_check");
    } else {
        std::printf("%s: IP addr NOT changed! (%s->%s) do arp_check!\n", "wan_up", old_address,
                    address.c_str());
    }
}

void start_services(bool is_ether) {
    if (match("rip_enable", "1")) {
        stop_rip();
        start_rip();
    }
    start_tc_qos();
    start_6to4_tunnel();
    if (openvpn_set_lan_ip() != 0) {
        stop_openvpn();
        start_openvpn();
    }
    if (match("ipv6rd_auto_mode", "1") && is_ether) start_6rd_tunnel();
}

void set_inbound_filter() {
    agApi_natSetInboundFilter(match("nat_inbound_filtering", "1") ? 1 : 0);
}

void disable_dmz() { agApi_fwDMZRuleSet(0, 0, inet_addr("192.168.1.2")); }

// The DMZ host's last octet; 0 when the text is no number from 1 to 254.
unsigned int dmz_last_octet(const std::string &text) {
    char *end = nullptr;
    errno = 0;
    long n = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || errno == ERANGE || n < 1 || n > 254) return 0;
    return static_cast<unsigned int>(n);
}

}  // namespace

void wan_up(const char *ifname) {
    if (ifname == nullptr) {
        std::fprintf(stderr, "wan_up: no interface name\n");
        return;
    }
    const bool is_ether = std::strcmp(ifname, kLteIfname) != 0;
    // While LTE carries the traffic, an Ethernet WAN-up (a probe start) must not touch routes.
    if (match("wwan_wan_type", "2") && match("current_ifname", kLteIfname) && is_ether) return;

    set_features(is_ether);
    if (is_ether)
        add_ether_routes(ifname);
    else
        add_lte_routes();
    add_wan_and_lan_routes(ifname);
    update_resolv_conf(ifname);
    restart_timesync();
    signal_ddns();
    restart_nat(is_ether, ifname);
    if (in_japan_region() && !match("wan_proto", "pppoe"))
        shell::run("wan_up", "killall -SIGWINCH httpd");
    report_address(is_ether);
    start_services(is_ether);

    if (match("wwan_wan_type", "2") && !is_ether) write_failover_event(event::kLteUp);
}

int start_wan_nat(int is_ether) {
    std::string old_address = get("wan_ipaddr_old");
    std::string address = get("wan_ipaddr");
    // An Ethernet WAN that came back with the same address keeps its NAT and connections.
    if (address == old_address && address != "0.0.0.0" && is_ether == 1) return 0;
    store::set("wan_ipaddr_old", address.c_str());

    agApi_natUnhook(nullptr);
    if (!in_japan_region()) agApi_natLanHook("br0");

    if (match("wwan_wan_type", "0") || (match("wwan_wan_type", "2") && is_ether == 0)) {
        agApi_natHook(get("wan1_ifname"));
    } else if (!wan_proto_is_ppp()) {
        agApi_natHook(get("wan_ifname"));
    } else {
        const bool first = match("first_wan_status", "1");
        std::string carrier = get("wan_ifname");
        if (first) agApi_natHook("ppp0");
        if (match("second_wan_status", "1")) {
            if (first) {
                agApi_natPptpWanHook(carrier.c_str());
            } else {
                agApi_natHook(carrier.c_str());
                if (match("wan_proto", "pptp") || match("wan_proto", "l2tp"))
                    agApi_natPptpWanHook(carrier.c_str());
            }
        }
    }

    veskNat_DoConnRecovery();
    dmz_init();
    set_inbound_filter();
    agApi_natEnable();
    return 0;
}

int mp_start_nat(const char *ifname) {
    if (ifname == nullptr || std::strncmp(ifname, "ppp", 3) != 0) {
        std::fprintf(stderr, "mp_start_nat: %s not a ppp interface.\n",
                     ifname ? ifname : "(null)");
        return -1;
    }
    agApi_natUnhook(ifname);
    agApi_natHook(ifname);
    int count = 0;
    agApi_natWanIfCnt(&count);
    // Only the first session re-attaches connections and sets the DMZ; a second one joins it.
    if (count == 1) {
        veskNat_DoConnRecovery();
        dmz_init();
    }
    set_inbound_filter();
    agApi_natEnable();
    return 0;
}

int dmz_init() {
    if (!match("fw_dmz_enab", "1")) {
        disable_dmz();
        return 0;
    }
    std::string dmz_address = get("dmz_ipaddr");
    in_addr_t host = INADDR_NONE;
    if (!dmz_address.empty()) {
        host = inet_addr(dmz_address.c_str());
    } else {
        unsigned int octet = dmz_last_octet(get("fw_dmz_ip4"));
        in_addr_t lan = inet_addr(get("lan_ipaddr"));
        // The host is taken from a /24 of the LAN address, whatever the LAN's real mask.
        if (octet != 0 && lan != INADDR_NONE)
            host = (lan & inet_addr("255.255.255.0")) | htonl(octet);
    }
    if (host != INADDR_NONE) {
        if (agApi_fwDMZRuleSet(0, 1, host) == 1) return 0;
        std::printf("%s: Error setting DMZ.\n", "dmz_init");
    }
    // A DMZ that cannot be set is switched off rather than left pointing at an old host.
    disable_dmz();
    return 0;
}

int second_wan_up(const char *ifname) {
    if (ifname == nullptr) {
        std::fprintf(stderr, "second_wan_up: no interface name\n");
        return -1;
    }
    store::set("second_wan_status", "1");
    add_wan_and_lan_routes(ifname);
    return start_wan_nat(std::strcmp(ifname, kLteIfname) != 0 ? 1 : 0);
}

int start_tc_qos() {
    if (!match("qos_bw_enable", "1") || !match("qos_enable", "1")) return 0;
    if (!wan_proto_is_ppp()) {
        if (tc_first_run == 0) return 0;
        tc_first_run = 0;
    }
    // The script is generated elsewhere and may still be on its way.
    for (int tries = 0; tries < kTcTries; ++tries) {
        if (File script = open_file(kTcScript, "r")) {
            script.reset();
            char shell_path[] = "/bin/sh";
            char script_path[] = "/tmp/tc_cmd";
            char *const argv[] = {shell_path, script_path, nullptr};
            _eval_daemon(argv, ">/dev/console", 0, nullptr, 0);
            std::puts("TC is active.");
            return 0;
        }
        sleep(1);
    }
    std::printf("%s is NOT exist!! TC is NOT active!!\n", kTcScript);
    return 0;
}
