// The IPv6 firewall control device "/dev/spiv6": one request per operation.
#pragma once

// Inspection mode 0 or 1. Always 0.
int ipv6_spi_mode(int mode);

// The LAN / WAN interface of the inspection. 0 when the device opened, -1 when it did not.
int ipv6_spi_lan_hook(const char *ifname);
int ipv6_spi_wan_hook(const char *ifname);

// Drop every IPv6 packet (1) or not (0). Always 0.
int ipv6_drop_all_packet(int flag);

// Answer pings from the WAN (1) or not (0). Always 0.
int ipv6_enable_wan_ping(int flag);
