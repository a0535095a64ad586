// IPv6 WAN start: the WAN and LAN addresses and their store keys, the restart of radvd and
// dhcp6s (with the LAN ports cycled when the advertised prefix changed), and the IPv6 firewall
// device's interfaces and policy.
#include "ipv6/ipv6_wan.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <string>
#include <vector>

#include "ipv6/dhcp6s.h"
#include "ipv6/radvd.h"
#include "ipv6/spiv6.h"
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "services/dns.h"
#include "shared/command.h"
#include "shared/store.h"

namespace {

constexpr const char *kRoutine = "ipv6_wan_start";
constexpr const char *kLeaseFile = "/tmp/server6.leases";

// Size of the buffers the interface identifier and the WAN interface name are read into:
// longer values are cut there.
constexpr std::size_t kInterfaceIdSize = 128;
constexpr std::size_t kWanIfnameSize = 32;

using store::match;

using store::set;

using store::get;

bool is(const char *text, const char *value) { return std::strcmp(text, value) == 0; }

// A missing argument reads as "".
const char *text_or_empty(const char *text) { return text ? text : ""; }

void start_daemon_to_console(std::vector<std::string> args) {
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    _eval_daemon(argv.data(), ">/dev/console", 0, nullptr, 0);
}

// The LAN address: the prefix itself for "fixed", else the prefix joined with the configured
// or MAC-derived interface identifier.
std::string lan_address(const char *mode, const char *lan_prefix, const char *lan_length) {
    if (is(mode, "fixed")) {
        std::string gateway = get("ipv6_wan_gateway");
        if (!gateway.empty())
            start_daemon_to_console({"route", "-A", "inet6", "add", "::/0", "gw", gateway});
        return lan_prefix;
    }
    std::array<char, kInterfaceIdSize> id{};
    if (match("ipv6_interfaceid_enable", "1"))
        store::read("ipv6_interface_id", id.data(), id.size());
    else
        mac_addr_to_interface_id(store::get("lan_hwaddr"), id.data());
    std::array<char, VESK_IPV6_TEXT_SIZE> address{};
    create_ipv6_addr(lan_prefix, std::atoi(lan_length), id.data(), address.data());
    return address.data();
}

// "wl down" / "wl up" for each radio in use, when addresses come from DHCPv6 only and the
// wireless hosts must notice the new prefix too.
void cycle_radios(const char *direction) {
    if (!match("RA_AdvManagedFlag", "on")) return;
    if (match("wla_wlanstate", "Enable"))
        shell::run(kRoutine, "wl %s", {shell::trusted(direction)});
    if (match("wlg_wlanstate", "Enable"))
        shell::run(kRoutine, "wl -i eth2 %s", {shell::trusted(direction)});
}

void restart_lan_daemons(bool changed) {
    shell::run(kRoutine, "killall -9 radvd");
    shell::run(kRoutine, "killall dhcp6s");
    if (changed) {
        // The DHCPv6 server comes back before the ports, the advertisements only after them.
        unlink(kLeaseFile);
        sleep(2);
        start_dhcp6s();
        abEnableLanEthernetPort();
        cycle_radios("up");
        sleep(4);
        write_radvd_conf();
    } else {
        sleep(2);
        write_radvd_conf();
        start_dhcp6s();
    }
}

void hook_wan(const char *mode, const char *wan_ifname) {
    if (match("ipv6_proto", "pppoe")) {
        // A tunnel start passes no WAN interface: then there is nothing to hook.
        if (wan_ifname) ipv6_spi_wan_hook(wan_ifname);
    } else if (is(mode, "fixed") || is(mode, "autoconfig_wan") || is(mode, "dhcp")) {
        std::array<char, kWanIfnameSize> name{};
        store::read("wan_ifname", name.data(), name.size());
        ipv6_spi_wan_hook(name.data());
    } else if (is(mode, "6to4") || is(mode, "6rd")) {
        ipv6_spi_wan_hook("sit0");
    }
}

}  // namespace

int ipv6_wan_start(const char *mode, const char *wan_ifname, const char *wan_addr,
                   const char *wan_length, const char *lan_prefix, const char *lan_length) {
    mode = text_or_empty(mode);
    lan_prefix = text_or_empty(lan_prefix);
    lan_length = text_or_empty(lan_length);

    if (!is(mode, "6to4") && !is(mode, "6rd") && !is(mode, "autoconfig")) {
        const char *ifname = text_or_empty(wan_ifname);
        const char *addr = text_or_empty(wan_addr);
        const char *length = text_or_empty(wan_length);
        shell::run(kRoutine, "ifconfig %s add %s/%s",
                   {shell::ifname(ifname), shell::ipv6(addr), shell::digits(length)});
        set("ipv6_wan_ipaddr", addr);
        set("ipv6_wan_length", length);
        set("ipv6_wan_ipaddr_old", addr);
        set("ipv6_wan_length_old", length);
    }

    if (is(mode, "autoconfig_wan")) {
        // The LAN side stays as it is; only a PPPoE session shared with IPv4 needs the
        // DHCPv6 server restarted.
        if (is_single_session_pppoe()) {
            shell::run(kRoutine, "killall dhcp6s");
            sleep(1);
            start_dhcp6s();
        }
    } else {
        std::string address = lan_address(mode, lan_prefix, lan_length);
        shell::run(kRoutine, "ifconfig %s add %s/%s",
                   {shell::ifname(get("lan_ifname"), "lan_ifname"), shell::ipv6(address),
                    shell::digits(lan_length)});
        set("ipv6_lan_ipaddr", address.c_str());
        set("ipv6_lan_length", lan_length);
        set("ipv6_lan_ipaddr_old", address.c_str());
        set("ipv6_lan_length_old", lan_length);

        bool changed = radvd_update_lan_prefix(address.c_str(), lan_length) != 0;
        if (changed) {
            // The LAN hosts see the link drop and ask again, so they pick up the new prefix.
            abDisableLanEthernetPort();
            cycle_radios("down");
            sleep(1);
        }
        if (match("ipv6_proto", "fixed")) update_resolv_conf(text_or_empty(wan_ifname));
        restart_lan_daemons(changed);
    }

    ipv6_spi_lan_hook(store::get("lan_ifname"));
    hook_wan(mode, wan_ifname);
    ipv6_spi_mode(match("nat_inbound_filtering", "1") ? 1 : 0);
    ipv6_enable_wan_ping(match("fw_rsp_ping", "1") ? 1 : 0);
    return 0;
}

int radvd_update_lan_prefix(const char *lan_addr, const char *lan_length) {
    lan_addr = text_or_empty(lan_addr);
    lan_length = text_or_empty(lan_length);
    // Copies: the keys are set again below.
    std::string stored_addr = get("radvd_lan_new_ipaddr");
    std::string stored_length = get("radvd_lan_new_ipaddr_length");

    std::array<char, kIpv6PrefixSize> old_prefix{};
    std::array<char, kIpv6PrefixSize> new_prefix{};
    int old_rc = get_ipv6_prefix(stored_addr.c_str(), std::atoi(stored_length.c_str()),
                                 old_prefix.data());
    int new_rc = get_ipv6_prefix(lan_addr, std::atoi(lan_length), new_prefix.data());

    bool changed = old_rc == 0 && new_rc == 0 &&
                   std::strcmp(old_prefix.data(), new_prefix.data()) != 0;
    // The whole address is kept as obsolete, not its prefix: radvd withdraws its prefix.
    set("radvd_lan_obsolete_ipaddr", changed ? stored_addr.c_str() : "");
    set("radvd_lan_obsolete_ipaddr_length", changed ? stored_length.c_str() : "");
    set("radvd_lan_new_ipaddr", lan_addr);
    set("radvd_lan_new_ipaddr_length", lan_length);
    return changed ? 1 : 0;
}

int get_ipv6_prefix(const char *addr, int length, char *out) {
    // Integer division, as the check has always been made: -7..-1 pass it too, and keep no bit.
    int byte_index = length / 8;
    if (byte_index < 0 || byte_index > 15) {
        std::printf("Invalid prefix length (%d)!\n", length);
        return -1;
    }
    unsigned char bytes[16];
    if (!addr || inet_pton(AF_INET6, addr, bytes) != 1) return -1;

    bytes[byte_index] &= static_cast<unsigned char>(0xFF << (8 - length % 8));
    for (int i = byte_index + 1; i < 16; ++i) bytes[i] = 0;

    char text[INET6_ADDRSTRLEN];
    if (!inet_ntop(AF_INET6, bytes, text, sizeof text)) return -1;
    std::snprintf(out, kIpv6PrefixSize, "%s/%d", text, length);
    return 0;
}
