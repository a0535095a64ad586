// The NAT library's state on the host, shared by every process that calls the library: a text
// file under /var/run, changed read-modify-write under flock. Host-internal.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace nat {

inline constexpr const char *STATE_PATH = "/var/run/failover-nat.state";

// A WAN-side interface and the IPv4 address it had when hooked ("" when it had none), so that
// connections bound to that address can be found once the interface is unhooked.
struct Wan {
    std::string ifname;
    std::string address;
    bool operator==(const Wan &) const = default;
};

struct State {
    unsigned features = 0;           // agApi_feature_set
    std::vector<Wan> wans;           // agApi_natHook, in hook order, names distinct
    std::vector<Wan> carriers;       // agApi_natPptpWanHook, names distinct
    std::set<std::string> lans;      // agApi_natLanHook
    std::vector<Wan> gone;           // unhooked since the last connection recovery
    bool inbound_filter = false;     // agApi_natSetInboundFilter
    bool echo = false;               // agApi_fwEchoRespSet
    uint32_t dmz = 0;                // DMZ host, network byte order; 0: no DMZ
    std::map<int, int> listen;       // agApi_setDeviceListenPort: service -> port
    bool operator==(const State &) const = default;
};

// The file text of `state`, one setting per line; parse reads it back. parse gives nullopt for
// a text no writer of ours makes.
std::string serialise(const State &state);
std::optional<State> parse(const std::string &text);

// The blank-separated words of `text` (blanks: space, tab, line ends). Used instead of string
// streams, which would add their locale machinery to the router's static programs.
std::vector<std::string> split_words(std::string_view text);

// True when `name` can be an interface name handed to nft: 1 to 15 characters out of letters,
// digits and "._-+".
bool valid_ifname(const char *name);

// Runs `change` on the current state while holding the state's lock. `change` edits the state
// it is given and returns the call's result; returning `failure` drops the edit. When the edit
// changed the state (or `always_apply`), `apply(old, new)` must bring the kernel in line,
// returning false after a line on stderr when it could not; only then is the new state stored,
// so the file never describes a table the kernel refused. Returns change's result, or `failure`
// after a line on stderr naming `routine` when the state could not be read or stored.
using Apply = std::function<bool(const State &old_state, const State &new_state)>;
int update(const char *routine, int failure, const std::function<int(State &)> &change,
           const Apply &apply, bool always_apply = false);

}  // namespace nat
