// The WAN-up sequence and its NAT and QoS companions.
#pragma once

// Runs everything a WAN that just got its address needs: routes, resolver, NAT, services.
void wan_up(const char *ifname);

// NAT re-hook on the current WAN interfaces; `is_ether` 1 for an Ethernet call. Returns 0.
int start_wan_nat(int is_ether);

// NAT re-hook on one ppp interface. 0, or -1 when `ifname` is absent or not "ppp...".
int mp_start_nat(const char *ifname);

// Sets (or switches off) the DMZ rule. Always 0.
int dmz_init();

// The physical second session of a PPTP/L2TP setup came up. Returns start_wan_nat's result.
int second_wan_up(const char *ifname);

// Runs the traffic-control script "/tmp/tc_cmd" when bandwidth QoS is on. Always 0.
int start_tc_qos();
