// Start, probe and stop of the Ethernet WAN.
#pragma once

#include <functional>
#include <string>

// Starts the Ethernet WAN for every `wan_proto` but "pppoe".
void Ether_connection_start();

// Starts the Ethernet WAN for a reachability test while LTE is active: 0 reachable,
// -1 not reachable or the start failed, another non-zero value for an unknown protocol.
int Ether_connection_probe();

// Starts the PPPoE Ethernet WAN, holding `pppoe_starting` at "1" for 8 s.
void start_pppoe_wan();

// PPPoE counterpart of Ether_connection_probe: 0 reachable, -1 not.
int PPPoE_connection_probe();

// Stops the Ethernet WAN's client for the current `wan_proto`.
void stop_ether_wan();

// The probes' wait for a WAN address: up to 5 passes of 2 s, left once `read_address` (the
// value of `wan_ipaddr`) is not "0.0.0.0". `sleep_first`: the Ethernet probe sleeps before each
// look, the PPPoE probe after it. 0 to go on probing, with or without an address; -1 after the
// line "WAN start failed! " when an address seen in the fifth pass is gone at a second look.
int wait_for_wan_address(bool sleep_first, const std::function<std::string()> &read_address);
