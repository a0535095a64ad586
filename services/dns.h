// The resolver file "/tmp/resolv.conf" that dnsmasq reads its upstream servers from.
#pragma once

// Merges the DNS list of WAN `ifname` into the resolver file and tells dnsmasq to re-read it.
// 0, or the error number when a file cannot be opened.
int update_resolv_conf(const char *ifname);

// Rewrites the resolver file: mode 1 with no servers, any other mode with the current PPP
// protocol's learnt list.
void write_ppp_resolv(int mode);

// Drops the servers of WAN `ifname` from the resolver file and tells dnsmasq to re-read it.
// 0, or the error number when a file cannot be opened.
int remove_wan_dns(const char *ifname);

// 1 when a route on the WAN interface covers dotted-quad `address`, else 0.
int dns_routed_via_wan(const char *address);
