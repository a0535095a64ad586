// 6to4 and 6rd tunnels over "sit0".
#pragma once

#include <cstdint>

// Brings up 6to4 when configured. 0, or -1 when no 6to4 address can be made.
int start_6to4_tunnel();

// Writes the 6to4 address of the WAN into `out` (at least 128 bytes). 0, or -1.
int make_6to4_address(char *out);

// Brings up a tunnel for every usable 6rd rule and records the per-rule status. 0.
int start_6rd_tunnel();

// Appends the 64-bit 6rd prefix as four "%x:" groups to `out` (room for 20 more characters
// needed); the delegated length, or -1.
int make_6rd_prefix(char *out, const char *rule_prefix, int ipv4_mask_length, uint32_t wan_ipv4);
