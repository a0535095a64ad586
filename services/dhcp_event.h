// The DHCP client's event script: what the router does when udhcpc gets, renews or loses a
// lease on one of its WAN interfaces.
#pragma once

#include <string>

// A lease as udhcpc hands it to its script, in the environment variables of the same names.
struct DhcpLease {
    std::string interface;  // the interface the client runs on
    std::string ip;         // the leased address
    std::string subnet;     // its netmask, dotted
    std::string router;     // the gateways, blank-separated; the first one is used
    std::string dns;        // the DNS servers, blank-separated
};

// Handles udhcpc's `event` for `lease.interface`, which must be the Ethernet WAN (`wan_ifname`)
// or the LTE WAN (`wan1_ifname`):
// - "bound", "renew": puts the address on the interface, records the lease (wan_ipaddr,
//   wan_netmask, wan_gateway, wan_dns; for the LTE WAN wan1_ipaddr, wan1_gateway, wan1_dns)
//   and runs wan_up for the interface. Under PPPoE, PPTP or L2TP the Ethernet interface only
//   carries the session: its DNS servers go to wan_dns, <protocol>_dhcp_enabled becomes "1"
//   (the session start waits for it) and second_wan_up runs instead; the PPP link's own
//   addresses come from pppd (ppp_event.h).
// - "deconfig": takes the address off the interface and sets the same keys to "0.0.0.0"
//   (<protocol>_dhcp_enabled to "0").
// - anything else ("leasefail", "nak"): a line, nothing done.
// 0 when done; 1 when a value of the lease or the interface was refused or the interface could
// not be configured, with a line on stderr. A refused lease writes nothing.
int dhcp_client_event(const std::string &event, const DhcpLease &lease);
