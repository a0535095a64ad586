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
#include "shared/generated_file.h"
#include "shared/store.h"
#include "shared/values.h"
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

constexpr const char *kRoutine = "write_radvd_conf";

// One "<indent><name> <value>;" directive from the store. radvd reads words up to ';' and
// blocks in braces: a value that would split there is refused and the directive left out, so
// that radvd takes its own default for it.
void directive(GeneratedFile &f, const char *indent, const char *name, const char *key) {
    const char *value = get(key);
    if (!values::check(kRoutine, key, value, values::Kind::token)) return;
    f.printf("%s%s %s;\n", indent, name, value);
}

// Prefix block of a LAN prefix learnt or configured as an IPv6 address.
void write_lan_prefix(GeneratedFile &f, const Proto &proto) {
    char prefix[kIpv6PrefixSize] = "";
    if (get_ipv6_prefix(get("ipv6_lan_ipaddr"), atoi32(get("ipv6_lan_length")), prefix) != 0)
        return;
    bool dynamic = match("RA_use_dynamic_lifetime", "1") && proto.dynamic_lifetimes_allowed();
    f.printf(" prefix %s {\n", prefix);
    directive(f, "  ", "AdvOnLink", "RA_AdvOnLink");
    directive(f, "  ", "AdvAutonomous", "RA_AdvAutonomous");
    directive(f, "  ", "AdvValidLifetime",
              dynamic ? "RA_AdvValidLifetime_from_IAPD" : "RA_AdvValidLifetime");
    directive(f, "  ", "AdvPreferredLifetime",
              dynamic ? "RA_AdvPreferredLifetime_from_IAPD" : "RA_AdvPreferredLifetime");
    f.put(" };\n");
}

// Prefix block of 6to4: radvd fills in the prefix from the WAN interface's IPv4 address.
void write_6to4_prefix(GeneratedFile &f) {
    const char *base = wan_proto_is_ppp() ? "ppp0" : get("wan_ifname");
    // Without its base interface the block would advertise the literal 0:0:0:x:: prefix.
    if (!values::check(kRoutine, "wan_ifname", base, values::Kind::ifname)) return;
    f.printf(" prefix 0:0:0:%x::/64 {\n", static_cast<unsigned>(atoi32(get("ipv6_6to4_sla_id"))));
    directive(f, "  ", "AdvOnLink", "RA_AdvOnLink");
    directive(f, "  ", "AdvAutonomous", "RA_AdvAutonomous");
    f.put("  AdvRouterAddr off;\n");
    f.printf("  Base6to4Interface %s;\n", base);
    directive(f, "  ", "AdvValidLifetime", "RA_AdvValidLifetime");
    directive(f, "  ", "AdvPreferredLifetime", "RA_AdvPreferredLifetime");
    f.put(" };\n");
}

// The prefix advertised before the last change, withdrawn with zero lifetimes so that LAN
// hosts drop their addresses in it.
void write_obsolete_prefix(GeneratedFile &f) {
    char prefix[kIpv6PrefixSize] = "";
    if (get_ipv6_prefix(get("radvd_lan_obsolete_ipaddr"),
                        atoi32(get("radvd_lan_obsolete_ipaddr_length")), prefix) != 0)
        return;
    f.printf(" prefix %s {\n", prefix);
    f.put("  AdvOnLink on;\n");
    f.put("  AdvAutonomous off;\n");
    f.put("  AdvValidLifetime 0;\n");
    f.put("  AdvPreferredLifetime 0;\n");
    f.put(" };\n");
}

void write_interface(GeneratedFile &f, const Proto &proto, const char *lan_ifname) {
    f.printf("interface %s {\n", lan_ifname);
    f.put(" AdvSendAdvert on;\n");
    directive(f, " ", "AdvCurHopLimit", "RA_AdvCurHopLimit");
    directive(f, " ", "MinRtrAdvInterval", "RA_MinRtrAdvInterval");
    directive(f, " ", "MaxRtrAdvInterval", "RA_MaxRtrAdvInterval");
    directive(f, " ", "AdvManagedFlag", "RA_AdvManagedFlag");
    directive(f, " ", "AdvOtherConfigFlag", "RA_AdvOtherConfigFlag");
    directive(f, " ", "AdvDefaultLifetime", "RA_AdvDefaultLifetime");
    directive(f, " ", "AdvReachableTime", "RA_AdvReachableTime");
    directive(f, " ", "AdvRetransTimer", "RA_AdvRetransTimer");
    f.put(" AdvDefaultPreference low;\n");
    f.put(" AdvHomeAgentFlag off;\n");
    if (proto.six_rd()) directive(f, " ", "AdvLinkMTU", "ipv6rd_wan_mtu");
    // With managed addresses the hosts get theirs from DHCPv6 only.
    if (!match("ipv6_lan_ipaddr", "") && !match("RA_AdvManagedFlag", "on")) {
        if (proto.six_to_four())
            write_6to4_prefix(f);
        else
            write_lan_prefix(f, proto);
    }
    write_obsolete_prefix(f);
    // The DNS server block is left out rather than written with something else in it.
    const char *dns = get(lan_dns_server_key());
    if (values::check(kRoutine, lan_dns_server_key(), dns, values::Kind::token)) {
        f.printf(" RDNSS %s {\n", dns);
        f.put("  AdvRDNSSPreference 0;\n");
        // Twice the longest advertisement interval, in 32-bit arithmetic as on the router.
        auto lifetime = static_cast<std::uint32_t>(
            2u * static_cast<std::uint32_t>(atoi32(get("RA_MaxRtrAdvInterval"))));
        f.printf("  AdvRDNSSLifetime %lu;\n", static_cast<unsigned long>(lifetime));
        f.put(" };\n");
    }
    f.put("};\n\n");
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

const char *lan_dns_server_key() {
    if (rdnss_from_link_local()) return "lan_ipv6_link_local_addr1";
    if (!match("ipv6_lan_ipaddr", "")) return "ipv6_lan_ipaddr";
    return "lan_ipv6_link_local_addr";
}

int write_radvd_conf() {
    Proto proto;
    if (proto.is("disable") || proto.is("passthrough") || proto.is_auto("passthrough")) return 0;

    // Without a LAN interface radvd has nothing to serve; with a refused one, nothing it can.
    const char *lan_ifname = get("lan_ifname");
    if (!values::check(kRoutine, "lan_ifname", lan_ifname, values::Kind::ifname)) return EINVAL;
    {
        GeneratedFile f(kConfPath);
        if (!f) return errno;
        if (*lan_ifname != '\0') write_interface(f, proto, lan_ifname);
        if (int error = f.commit()) return error;
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
