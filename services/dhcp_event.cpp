#include "services/dhcp_event.h"

#include <cstdio>
#include <optional>

#include "shared/values.h"
#include "services/wan_up.h"
#include "shared/ifconfig.h"
#include "shared/store.h"
#include "shared/settings.h"

namespace {

// Which of the router's WANs a lease belongs to.
enum class LeaseWan { none, ether, lte, carrier };

LeaseWan wan_of(const std::string &ifname) {
    if (store::match("wan1_ifname", ifname.c_str())) return LeaseWan::lte;
    if (store::match("wan_ifname", ifname.c_str()))
        return wan_proto_is_ppp() ? LeaseWan::carrier : LeaseWan::ether;
    return LeaseWan::none;
}

// "pppoe_dhcp_enabled", "pptp_dhcp_enabled" or "l2tp_dhcp_enabled": the session start waits
// for it to read "1".
std::string carrier_flag() { return std::string(store::get("wan_proto")) + "_dhcp_enabled"; }

int refuse(const DhcpLease &lease, const char *what, const std::string &value) {
    std::fprintf(stderr, "vesk_service: udhcpc: lease on %s refused: %s \"%s\"\n",
                 values::printable(lease.interface).c_str(), what, values::printable(value).c_str());
    return 1;
}

std::string first_word(const std::string &text) {
    size_t start = text.find_first_not_of(" \t");
    if (start == std::string::npos) return "";
    return text.substr(start, text.find_first_of(" \t", start) - start);
}

int bound(LeaseWan wan, const DhcpLease &lease) {
    // Everything is checked before the interface or the store is touched.
    if (!values::is_ipv4(lease.ip)) return refuse(lease, "address", lease.ip);
    if (!values::is_netmask(lease.subnet)) return refuse(lease, "netmask", lease.subnet);
    const std::string gateway = first_word(lease.router);
    if (!values::is_ipv4(gateway) && !(wan == LeaseWan::carrier && gateway.empty()))
        return refuse(lease, "router", lease.router);
    const std::optional<std::string> dns = values::ipv4_list(lease.dns);
    if (!dns) return refuse(lease, "DNS list", lease.dns);

    const char *ifname = lease.interface.c_str();
    if (ifconfig(ifname, kWanInterfaceFlags, lease.ip.c_str(), lease.subnet.c_str()) != 0) {
        std::fprintf(stderr, "vesk_service: udhcpc: %s not configured, lease not recorded\n",
                     ifname);
        return 1;
    }
    std::printf("vesk_service: udhcpc: %s %s/%s gateway %s dns \"%s\"\n", ifname,
                lease.ip.c_str(), lease.subnet.c_str(), gateway.c_str(), dns->c_str());

    switch (wan) {
        case LeaseWan::ether:
            store::set("wan_ipaddr", lease.ip.c_str());
            store::set("wan_netmask", lease.subnet.c_str());
            store::set("wan_gateway", gateway.c_str());
            store::set("wan_dns", dns->c_str());
            wan_up(ifname);
            break;
        case LeaseWan::lte:
            store::set("wan1_ipaddr", lease.ip.c_str());
            store::set("wan1_gateway", gateway.c_str());
            store::set("wan1_dns", dns->c_str());
            // In failover mode the resolver takes the active WAN's servers from wan_dns, so
            // LTE's servers must stand there while LTE carries the traffic.
            if (store::match("wwan_wan_type", "2") && store::match("current_ifname", ifname))
                store::set("wan_dns", dns->c_str());
            wan_up(ifname);
            break;
        case LeaseWan::carrier:
            // The PPP link's WAN-up merges these servers with the ones pppd learns.
            store::set("wan_dns", dns->c_str());
            store::set(carrier_flag().c_str(), "1");
            second_wan_up(ifname);
            break;
        case LeaseWan::none:
            break;
    }
    return 0;
}

int deconfig(LeaseWan wan, const std::string &ifname) {
    switch (wan) {
        case LeaseWan::ether:
            for (const char *key : {"wan_ipaddr", "wan_netmask", "wan_gateway", "wan_dns"})
                store::set(key, "0.0.0.0");
            break;
        case LeaseWan::lte:
            for (const char *key : {"wan1_ipaddr", "wan1_gateway", "wan1_dns"})
                store::set(key, "0.0.0.0");
            break;
        case LeaseWan::carrier:
            store::set("wan_dns", "0.0.0.0");
            store::set(carrier_flag().c_str(), "0");
            break;
        case LeaseWan::none:
            break;
    }
    // The client expects its script to leave the interface up without an address; the
    // kernel drops the routes through it with the address.
    if (ifconfig(ifname.c_str(), kWanInterfaceFlags, "0.0.0.0", nullptr) != 0) {
        std::fprintf(stderr, "vesk_service: udhcpc: address of %s not removed\n", ifname.c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int dhcp_client_event(const std::string &event, const DhcpLease &lease) {
    if (!values::is_ifname(lease.interface)) {
        std::fprintf(stderr, "vesk_service: udhcpc: refused interface name \"%s\"\n",
                     values::printable(lease.interface).c_str());
        return 1;
    }
    const LeaseWan wan = wan_of(lease.interface);
    if (wan == LeaseWan::none) {
        std::fprintf(stderr, "vesk_service: udhcpc: %s is neither wan_ifname nor wan1_ifname\n",
                     lease.interface.c_str());
        return 1;
    }
    if (event == "bound" || event == "renew") return bound(wan, lease);
    if (event == "deconfig") return deconfig(wan, lease.interface);
    std::printf("vesk_service: udhcpc: %s on %s, nothing to do\n", values::printable(event).c_str(),
                lease.interface.c_str());
    return 0;
}
