// Router advertisements on the LAN: "/tmp/radvd.conf" is written whole from the configuration
// store on every IPv6 start, then radvd is started on it. The RA_* values go into the file as
// they are; radvd itself judges them.
#include "ipv6/radvd.h"

#include "shared/c_numbers.h"
#include "ipv6/ipv6_wan.h"
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "shared/command.h"
#include "shared/file.h"
#include "shared/store.h"
#include "shared/settings.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char *kConfPath = "/tmp/radvd.conf";
constexpr const char *kForwardingPath = "/proc/sys/net/ipv6/conf/all/forwarding";
constexpr const char *kDebugFifo = "/tmp/radvd_debug.fifo";
constexpr const char *kDebugText = "/tmp/radvd_debug.txt";
constexpr int kDebugTextBound = 1000;
constexpr std::size_t kProtoSize = 32;

using store::match;
using store::get;

// `ipv6_proto`, cut to the 31 characters its buffer holds.
struct Proto {
    char text[kProtoSize] = "";
    Proto() { store::read("ipv6_proto", text, sizeof text); }
    bool is(const char *value) const { return std::strcmp(text, value) == 0; }
    bool is_auto(const char *value) const { return is("auto") && match("ipv6_proto_auto", value); }
    bool six_to_four() const { return is("6to4") || is_auto("6to4"); }
    bool six_rd() const { return is("6rd") || is_auto("6rd"); }
    // Lifetimes learnt from the delegated prefix only make sense for a prefix that is
    // delegated, not one that is configured or derived from the IPv4 address.
    bool dynamic_lifetimes_allowed() const { return !is("fixed") && !six_to_four() && !six_rd(); }
};

// Prefix block of a LAN prefix learnt or configured as an IPv6 address.
void write_lan_prefix(std::FILE *f, const Proto &proto) {
    char prefix[kIpv6PrefixSize] = "";
    if (get_ipv6_prefix(get("ipv6_lan_ipaddr"), atoi32(get("ipv6_lan_length")), prefix) != 0)
        return;
    bool dynamic = match("RA_use_dynamic_lifetime", "1") && proto.dynamic_lifetimes_allowed();
    std::fprintf(f, " prefix %s {\n", prefix);
    std::fprintf(f, "  AdvOnLink %s;\n", get("RA_AdvOnLink"));
    std::fprintf(f, "  AdvAutonomous %s;\n", get("RA_AdvAutonomous"));
    std::fprintf(f, "  AdvValidLifetime %s;\n",
                 get(dynamic ? "RA_AdvValidLifetime_from_IAPD" : "RA_AdvValidLifetime"));
    std::fprintf(f, "  AdvPreferredLifetime %s;\n",
                 get(dynamic ? "RA_AdvPreferredLifetime_from_IAPD" : "RA_AdvPreferredLifetime"));
    std::fprintf(f, " };\n");
}

// Prefix block of 6to4: radvd fills in the prefix from the WAN interface's IPv4 address.
void write_6to4_prefix(std::FILE *f) {
    std::fprintf(f, " prefix 0:0:0:%x::/64 {\n",
                 static_cast<unsigned>(atoi32(get("ipv6_6to4_sla_id"))));
    std::fprintf(f, "  AdvOnLink %s;\n", get("RA_AdvOnLink"));
    std::fprintf(f, "  AdvAutonomous %s;\n", get("RA_AdvAutonomous"));
    std::fprintf(f, "  AdvRouterAddr off;\n");
    std::fprintf(f, "  Base6to4Interface %s;\n", wan_proto_is_ppp() ? "ppp0" : get("wan_ifname"));
    std::fprintf(f, "  AdvValidLifetime %s;\n", get("RA_AdvValidLifetime"));
    std::fprintf(f, "  AdvPreferredLifetime %s;\n", get("RA_AdvPreferredLifetime"));
    std::fprintf(f, " };\n");
}

// The prefix advertised before the last change, withdrawn with zero lifetimes so that LAN
// hosts drop their addresses in it.
void write_obsolete_prefix(std::FILE *f) {
    char prefix[kIpv6PrefixSize] = "";
    if (get_ipv6_prefix(get("radvd_lan_obsolete_ipaddr"),
                        atoi32(get("radvd_lan_obsolete_ipaddr_length")), prefix) != 0)
        return;
    std::fprintf(f, " prefix %s {\n", prefix);
    std::fprintf(f, "  AdvOnLink on;\n");
    std::fprintf(f, "  AdvAutonomous off;\n");
    std::fprintf(f, "  AdvValidLifetime %s;\n", "0");
    std::fprintf(f, "  AdvPreferredLifetime %s;\n", "0");
    std::fprintf(f, " };\n");
}

void write_interface(std::FILE *f, const Proto &proto) {
    std::fprintf(f, "interface %s {\n", get("lan_ifname"));
    std::fprintf(f, " AdvSendAdvert on;\n");
    std::fprintf(f, " AdvCurHopLimit %s;\n", get("RA_AdvCurHopLimit"));
    std::fprintf(f, " MinRtrAdvInterval %s;\n", get("RA_MinRtrAdvInterval"));
    std::fprintf(f, " MaxRtrAdvInterval %s;\n", get("RA_MaxRtrAdvInterval"));
    std::fprintf(f, " AdvManagedFlag %s;\n", get("RA_AdvManagedFlag"));
    std::fprintf(f, " AdvOtherConfigFlag %s;\n", get("RA_AdvOtherConfigFlag"));
    std::fprintf(f, " AdvDefaultLifetime %s;\n", get("RA_AdvDefaultLifetime"));
    std::fprintf(f, " AdvReachableTime %s;\n", get("RA_AdvReachableTime"));
    std::fprintf(f, " AdvRetransTimer %s;\n", get("RA_AdvRetransTimer"));
    std::fprintf(f, " AdvDefaultPreference low;\n");
    std::fprintf(f, " AdvHomeAgentFlag off;\n");
    if (proto.six_rd()) std::fprintf(f, " AdvLinkMTU %s;\n", get("ipv6rd_wan_mtu"));
    // With managed addresses the hosts get theirs from DHCPv6 only.
    if (!match("ipv6_lan_ipaddr", "") && !match("RA_AdvManagedFlag", "on")) {
        if (proto.six_to_four())
            write_6to4_prefix(f);
        else
            write_lan_prefix(f, proto);
    }
    write_obsolete_prefix(f);
    std::fprintf(f, " RDNSS %s {\n", lan_dns_server());
    std::fprintf(f, "  AdvRDNSSPreference 0;\n");
    // Twice the longest advertisement interval, in 32-bit arithmetic as on the router.
    auto lifetime = static_cast<std::uint32_t>(
        2u * static_cast<std::uint32_t>(atoi32(get("RA_MaxRtrAdvInterval"))));
    std::fprintf(f, "  AdvRDNSSLifetime %lu;\n", static_cast<unsigned long>(lifetime));
    std::fprintf(f, " };\n");
    std::fprintf(f, "};\n\n");
}

void enable_forwarding() {
    File f = open_file(kForwardingPath, "r+");
    if (f) std::fputc('1', f.get());
}

}  // namespace

int rdnss_from_link_local() {
    if (match("ipv6rd_wan_dns_sel", "0")) return 0;
    for (const char *proto : {"dhcp", "autoconfig", "pppoe", "6rd", "6to4"})
        if (match("ipv6_proto", proto)) return 1;
    if (match("ipv6_proto", "auto"))
        for (const char *proto : {"dhcp", "autoconfig", "6rd", "6to4"})
            if (match("ipv6_proto_auto", proto)) return 1;
    return 0;
}

const char *lan_dns_server() {
    if (rdnss_from_link_local()) return get("lan_ipv6_link_local_addr1");
    if (!match("ipv6_lan_ipaddr", "")) return get("ipv6_lan_ipaddr");
    return get("lan_ipv6_link_local_addr");
}

int write_radvd_conf() {
    Proto proto;
    if (proto.is("disable") || proto.is("passthrough") || proto.is_auto("passthrough")) return 0;

    {
        File f = open_file(kConfPath, "w");
        if (!f) {
            int error = errno;
            std::perror(kConfPath);
            return error;
        }
        if (!match("lan_ifname", "")) write_interface(f.get(), proto);
    }
    enable_forwarding();

    bool dynamic = match("RA_use_dynamic_lifetime", "1") && proto.dynamic_lifetimes_allowed();
    if (match("hidden_page_debug_ipv6", "1")) {
        if (abfifo_is_running_or_not(kDebugFifo) == 0)
            initial_abfifo(kDebugFifo, kDebugText, kDebugTextBound);
        shell::run("write_radvd_conf", "echo '========' >> %s", {shell::trusted(kDebugFifo)});
        shell::run("write_radvd_conf",
                   dynamic ? "radvd -d 9 -D -m stderr -C %s 2>>%s &"
                           : "radvd -d 9 -m stderr -C %s 2>>%s &",
                   {shell::trusted(kConfPath), shell::trusted(kDebugFifo)});
    } else {
        shell::run("write_radvd_conf", dynamic ? "radvd -d 1 -D -C %s &" : "radvd -d 1 -C %s &",
                   {shell::trusted(kConfPath)});
    }
    return 0;
}
