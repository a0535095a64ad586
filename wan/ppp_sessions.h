// Configuration and launch of the PPP-based WAN links.
#pragma once

// Writes the PPPoE files and starts pppd for the physical WAN interface `ifname`.
void start_pppoe_session(const char *ifname, int unit);

// Writes the PPTP files, addresses the physical interface and starts pppd.
void start_pptp_session(const char *ifname, int unit);

// Writes the L2TP files, addresses the physical interface and starts pppd.
void start_l2tp_session(const char *ifname, int unit);
