// The WAN-up sequence and its NAT and QoS companions.
#pragma once

// Runs everything a WAN that just got its address needs: routes, resolver, NAT, services.
void wan_up(const char *ifname);

// The physical second session of a PPTP/L2TP setup came up. Returns start_wan_nat's result.
int second_wan_up(const char *ifname);
