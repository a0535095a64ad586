#include "services/ppp_event.h"

#include <unistd.h>

#include <cstdio>
#include <optional>

#include "services/dns.h"
#include "shared/values.h"
#include "services/wan_up.h"
#include "shared/command.h"
#include "shared/store.h"

namespace {

constexpr const char *kSecondSessionFlag = "/tmp/ppp/no_ppp2";

// The list that this protocol's pppd learns its servers into; null for a WAN that is no PPP.
const char *learnt_dns_key() {
    if (store::match("wan_proto", "pppoe")) return "pppoe_dhcp_dns";
    if (store::match("wan_proto", "pptp")) return "pptp_dhcp_dns";
    if (store::match("wan_proto", "l2tp")) return "l2tp_dhcp_dns";
    return nullptr;
}

bool wan_link(const std::string &ifname) { return ifname == "ppp0" || ifname == "ppp1"; }

int refuse(const char *script, const char *what, const std::string &value) {
    std::fprintf(stderr, "vesk_service: %s: refused %s \"%s\"\n", script, what,
                 values::printable(value).c_str());
    return 1;
}

int other_link(const char *script, const std::string &ifname) {
    std::fprintf(stderr, "vesk_service: %s: %s is no WAN link (ppp0 or ppp1)\n", script,
                 ifname.c_str());
    return 1;
}

// The first session prepared the second one's files; its pppd starts once the first link is up.
void start_second_session() {
    if (unlink(kSecondSessionFlag) != 0) return;  // no flag, or another ip-up took it
    shell::run("ip-up", "/sbin/pppd file /tmp/ppp/peers/options &");
}

}  // namespace

int ppp_ip_up(const PppLink &link) {
    if (!values::is_ifname(link.ifname)) return refuse("ip-up", "interface name", link.ifname);
    if (!wan_link(link.ifname)) return other_link("ip-up", link.ifname);
    if (!values::is_ipv4(link.local)) return refuse("ip-up", "local address", link.local);
    if (!values::is_ipv4(link.remote)) return refuse("ip-up", "remote address", link.remote);
    const std::optional<std::string> dns = values::ipv4_list(link.dns1 + " " + link.dns2);
    if (!dns) return refuse("ip-up", "DNS servers", link.dns1 + " " + link.dns2);

    std::printf("vesk_service: ip-up: %s %s peer %s dns \"%s\"\n", link.ifname.c_str(),
                link.local.c_str(), link.remote.c_str(), dns->c_str());
    if (link.ifname == "ppp0") {
        store::set("wan_ipaddr", link.local.c_str());
        store::set("wan_gateway", link.remote.c_str());
        if (const char *key = learnt_dns_key()) store::set(key, dns->c_str());
        if (store::match("wan_proto", "pppoe")) store::set("pppoe_ifname", "ppp0");
        wan_up("ppp0");
    } else {
        store::set("wan2_dns", dns->c_str());
        update_resolv_conf("ppp1");
        mp_start_nat("ppp1");
    }
    start_second_session();
    return 0;
}

int ppp_ip_down(const PppLink &link) {
    if (!values::is_ifname(link.ifname)) return refuse("ip-down", "interface name", link.ifname);
    if (!wan_link(link.ifname)) return other_link("ip-down", link.ifname);
    std::printf("vesk_service: ip-down: %s\n", link.ifname.c_str());
    if (link.ifname == "ppp0") {
        store::set("wan_ipaddr", "0.0.0.0");
        store::set("wan_gateway", "0.0.0.0");
        if (const char *key = learnt_dns_key()) store::set(key, "");
    } else {
        store::set("wan2_dns", "");
    }
    return 0;
}
