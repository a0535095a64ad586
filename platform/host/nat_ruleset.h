// What the NAT state means to the kernel, as pure functions of the state: the nft script that
// rebuilds our table, and the addresses whose connections must be flushed. Host-internal.
#pragma once

#include "platform/host/nat_state.h"

#include <string>
#include <utility>
#include <vector>

namespace nat {

inline constexpr const char *TABLE = "ip failover";

// The nft script (for "nft -f -") that replaces our table whole, in one transaction: the table
// is declared, deleted and declared again with its chains and rules (no rules while no
// WAN-side interface is hooked).
std::string ruleset(const State &state);

// The addresses of interfaces unhooked since the last recovery that no hooked interface holds
// now, each once, in the order they were unhooked.
std::vector<std::string> stale_addresses(const State &state);

// From a "conntrack -L" listing: the (source, destination) pairs of connections that pass
// through the router without any address translation (the reply goes back to the original
// source, from the original destination) while neither end is one of the router's own
// addresses `local`. Each pair once, in listing order.
std::vector<std::pair<std::string, std::string>> untranslated_flows(
    const std::string &listing, const std::vector<std::string> &local);

}  // namespace nat
