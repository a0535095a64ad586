// Link and reachability probes of the failover daemon.
#pragma once

#include <cstddef>

// The probe address: one process-wide dotted quad, reset by the monitor before each
// reachability test, filled by select_probe_address, read by the ping and the probing route.
inline constexpr std::size_t kProbeAddressSize = 64;
extern char probe_address[kProbeAddressSize];

// Puts "0.0.0.0" into the probe address.
void reset_probe_address();

// 1 when the Ethernet WAN port has link, 0 when it has none or its state is unreadable.
unsigned get_wan_link_status();

// Packet loss in percent (0..100) of four pings to the probe address; 100 on any failure.
int get_ping_result();

// Reads one line of ping output as the summary "T packets transmitted, R packets received,
// L% packet loss": true, with the three counts, when it is one with a loss of 0..100.
bool parse_ping_summary(const char *line, int &transmitted, int &received, int &loss);

// Whether a line of the route listing names `address`.
bool route_line_names(const char *line, const char *address);

// Fills the probe address (configured, resolved default host, or "8.8.8.8") and
// `wwan_failover_test_ip`.
void select_probe_address();

// Host route to the probe address through the Ethernet WAN; the shell's status.
int add_probing_route();

// 0 when the probing route is listed (or the listing could not run), -1 when absent.
int test_probing_route();

// Removes the probing route; the shell's status.
int del_probing_route();
