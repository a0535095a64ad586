// IPv6 WAN start: addresses, store keys, LAN daemons and the IPv6 firewall device.
#pragma once

#include <cstddef>

// Size of a prefix text buffer of get_ipv6_prefix.
inline constexpr std::size_t kIpv6PrefixSize = 128;

// Sets the WAN and LAN IPv6 addresses for `mode` and restarts radvd and dhcp6s. Always 0.
// The three WAN arguments may be null for "6to4", "6rd" and "autoconfig".
int ipv6_wan_start(const char *mode, const char *wan_ifname, const char *wan_addr,
                   const char *wan_length, const char *lan_prefix, const char *lan_length);

// Records the advertised LAN address; 1 when its prefix differs from the one advertised before.
int radvd_update_lan_prefix(const char *lan_addr, const char *lan_length);

// Writes "prefix/length" of `addr` into `out` (kIpv6PrefixSize bytes). 0, or -1.
int get_ipv6_prefix(const char *addr, int length, char *out);
