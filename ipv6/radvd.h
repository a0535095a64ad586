// Router advertisements on the LAN: "/tmp/radvd.conf" and radvd.
#pragma once

// Writes the radvd configuration, turns IPv6 forwarding on and starts radvd. 0 after starting
// it, 0 when IPv6 is off or passed through, errno when the file cannot be created.
int write_radvd_conf();

// 1 when the DNS server advertised on the LAN is the second link-local address, else 0.
int rdnss_from_link_local();

// The key holding the DNS server address handed to LAN hosts (RDNSS and DHCPv6): the second
// link-local address when rdnss_from_link_local(), else the LAN address when set, else the
// link-local address.
const char *lan_dns_server_key();
