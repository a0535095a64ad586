// RIP routing: zebra and ripd configuration for the LAN and the WAN interface.
#pragma once

// Rewrites the configuration files and, with RIP on, starts zebra and ripd. 0 when RIP is off,
// else the result of starting ripd.
int start_rip();

// Kills zebra and ripd.
int stop_rip();

// Appends the ripd section of one interface. 0, or errno when a file cannot be opened.
int write_rip_conf(const char *ifname, int is_lan);

// Leading one bits of dotted `netmask`; 24 when absent or not an address, 0 when the top bit is
// clear.
int netmask_to_prefix_length(const char *netmask);
