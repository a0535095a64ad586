// pppd's link scripts "/tmp/ppp/ip-up" and "/tmp/ppp/ip-down": what the router does when a
// PPP link (PPPoE, PPTP or L2TP) gets or loses its IPCP addresses.
#pragma once

#include <string>

// A link as pppd hands it to its scripts: argv "ifname tty speed local-ip remote-ip ipparam",
// the servers learnt from the peer in the environment variables DNS1 and DNS2.
struct PppLink {
    std::string ifname;
    std::string local;   // our address on the link
    std::string remote;  // the peer's address
    std::string dns1;    // "" when the peer gave none
    std::string dns2;
};

// The link is up. "ppp0", the WAN's session: wan_ipaddr = local, wan_gateway = remote, the
// learnt servers into the protocol's list (pppoe_dhcp_dns, pptp_dhcp_dns or l2tp_dhcp_dns;
// PPPoE also names the link in pppoe_ifname), then wan_up("ppp0"). "ppp1", the second PPPoE
// session: its servers into wan2_dns, merged into its resolver file, and NAT on the link.
// Either way, when "/tmp/ppp/no_ppp2" exists the flag is removed and the second session's pppd
// started. 0 when done; 1 for a refused value or another link, with a line on stderr.
int ppp_ip_up(const PppLink &link);

// The link is down: the keys that ppp_ip_up filled are cleared ("0.0.0.0" for addresses, ""
// for the DNS lists). 0, or 1 for a refused name or another link.
int ppp_ip_down(const PppLink &link);
