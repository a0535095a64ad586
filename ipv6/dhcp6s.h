// The LAN's DHCPv6 server: "/tmp/dhcp6s.conf" and dhcp6s.
#pragma once

// Writes the configuration and starts dhcp6s. 0 when started (or nothing to do), 1 when the
// start failed, errno when a file cannot be opened.
int start_dhcp6s();
