// Checks of the values that the DHCP client and pppd hand to the router's event scripts. They
// come from the network (a lease, a peer's IPCP options), so nothing reaches the store or a
// command line before it has passed here.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// An interface name the kernel could hold: 1 to 15 characters of letters, digits, '.', '_',
// '-', '@', ':'.
bool valid_ifname(std::string_view name);

// A dotted quad, strictly: four decimal parts of 0 to 255, no leading zeros, nothing else.
bool valid_ipv4(std::string_view text);

// A dotted quad whose one bits are contiguous from the top (255.255.255.0, not 255.0.255.0).
bool valid_netmask(std::string_view text);

// Blank-separated dotted quads rewritten as a DNS list (single blanks); "" for none.
// Nothing when one of them is no address.
std::optional<std::string> ipv4_list(std::string_view text);

// `text` fit for a console line: bytes outside printable ASCII shown as '?', cut at 64.
std::string printable_value(std::string_view text);
