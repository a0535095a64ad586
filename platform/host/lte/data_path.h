// The LTE data interface rm_usb0 once ModemManager has connected a bearer: the DHCP client, or
// the static address handed to the router's lease handling, and their removal.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace lte {

inline constexpr const char *kDataInterface = "rm_usb0";

// Brings rm_usb0 up and starts "udhcpc -i rm_usb0 -p /var/run/udhcpc1.pid -s /tmp/udhcpc"; the
// lease script does the rest. The client's pid, or -1 after a line on stderr.
pid_t start_dhcp_client();

struct StaticConfig {
    std::string address;
    unsigned prefix = 0;
    std::string gateway;
    std::vector<std::string> dns;
    unsigned mtu = 0;  // 0: leave as it is
};

// Records the netmask in wan1_netmask and runs the lease handling's "bound" event for rm_usb0
// in a child (address on the interface, wan1_* keys, the WAN-up), so that the main loop goes on
// meanwhile. The child's pid, or -1 after a line on stderr (bad values included).
pid_t apply_static(const StaticConfig &config);

// Ends the DHCP client (its pid file, and `client` when above 0), takes rm_usb0 down without
// an address and sets wan1_ipaddr, wan1_gateway and wan1_dns to "0.0.0.0".
void take_down(pid_t client);

// "255.255.255.0" for 24; "" for a prefix above 32.
std::string netmask_of(unsigned prefix);

}  // namespace lte
