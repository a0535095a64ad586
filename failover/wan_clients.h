// Kill sequences for the WAN clients, shared by the switches, the stops and the monitor.
#pragma once

// Ends the DHCP client listed as `process_name` ("udhcpc0", "udhcpc1"): "kill -SIGUSR2" so it
// releases its lease, 1 s, "kill -9", 1 s, then "rm -f" of `pid_file`. Returns whether a client
// was found (nothing is done otherwise).
bool end_dhcp_client(const char *process_name, const char *pid_file);

// Ends pppd: "kill -SIGTERM" and removal of "/tmp/ppp/options" when it runs, then 2 s in any case.
void end_pppd();
