// The IPv6 firewall control device "/dev/spiv6": one request per operation.
#pragma once

#include <array>
#include <cstddef>

// Inspection mode 0 or 1. Always 0.
int ipv6_spi_mode(int mode);

// The LAN / WAN interface of the inspection. 0 when the device opened, -1 when it did not.
int ipv6_spi_lan_hook(const char *ifname);
int ipv6_spi_wan_hook(const char *ifname);

// Drop every IPv6 packet (1) or not (0). Always 0.
int ipv6_drop_all_packet(int flag);

// Answer pings from the WAN (1) or not (0). Always 0.
int ipv6_enable_wan_ping(int flag);

// The interface record of the hook requests, laid out as the router's 32-bit little-endian user
// space has it: bytes 4-7 the name's length, bytes 132-135 the address of the name, the rest 0.
inline constexpr std::size_t kSpiv6RecordSize = 136;
using Spiv6Record = std::array<unsigned char, kSpiv6RecordSize>;

// The record for `ifname`, which must stay in place while the record is in use.
Spiv6Record make_spiv6_record(const char *ifname);
