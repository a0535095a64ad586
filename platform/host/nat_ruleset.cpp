// Our nft table, rebuilt whole from the state at every change.
//
// WAN side: every interface hooked with agApi_natHook or as a carrier. Traffic leaving it is
// masqueraded (only traffic from the LAN-side interfaces when the LAN-only feature is on and
// some are hooked). Traffic arriving on it:
//   - replies to connections made from inside always pass;
//   - echo requests to the router are answered only with echo response on (they are dropped
//     otherwise, whatever the inbound filter says);
//   - the router's listen ports always reach the router;
//   - anything else addressed to the router goes to the DMZ host when there is one;
//   - what is left is dropped with the inbound filter on, and passes with it off.
//
// The chains stay, empty, while nothing is hooked: when the last NAT chain of a family goes,
// the kernel strips the NAT from every tracked connection, so a flow that keeps running
// across an unhook-and-hook would lose its address translation instead of keeping it until
// the connection recovery moves it.
#include "platform/host/nat_ruleset.h"

#include "platform/nat.h"

#include <arpa/inet.h>

#include <algorithm>
#include <set>

namespace nat {
namespace {

// `{ "a", "b" }`; the names are checked when hooked, so they need no escaping.
std::string name_set(const std::vector<std::string> &names) {
    std::string out = "{ ";
    for (size_t i = 0; i < names.size(); ++i) out += (i ? ", \"" : "\"") + names[i] + "\"";
    return out + " }";
}

std::string port_set(const std::set<int> &ports) {
    std::string out = "{ ";
    bool first = true;
    for (int p : ports) {
        out += (first ? "" : ", ") + std::to_string(p);
        first = false;
    }
    return out + " }";
}

std::vector<std::string> wan_side(const State &s) {
    std::vector<std::string> names;
    for (const std::vector<Wan> *list : {&s.wans, &s.carriers})
        for (const Wan &w : *list)
            if (std::find(names.begin(), names.end(), w.ifname) == names.end())
                names.push_back(w.ifname);
    return names;
}

std::string chain(const char *name, const char *type, const char *hook, const char *priority,
                  const std::vector<std::string> &rules) {
    std::string out = std::string("\tchain ") + name + " {\n\t\ttype " + type + " hook " + hook +
                      " priority " + priority + "; policy accept;\n";
    for (const std::string &r : rules) out += "\t\t" + r + "\n";
    return out + "\t}\n";
}

}  // namespace

std::string ruleset(const State &s) {
    std::vector<std::string> prerouting, postrouting, input, forward;
    std::vector<std::string> wans = wan_side(s);
    if (!wans.empty()) {
        const std::string in = "iifname " + name_set(wans) + " ";
        const std::string to_router = in + "fib daddr type local ";
        std::set<int> ports;
        for (const auto &[service, port] : s.listen) ports.insert(port);

        if (s.dmz != 0) {
            if (!ports.empty()) {
                prerouting.push_back(to_router + "tcp dport " + port_set(ports) + " return");
                prerouting.push_back(to_router + "udp dport " + port_set(ports) + " return");
            }
            if (s.echo) prerouting.push_back(to_router + "icmp type echo-request return");
            char host[INET_ADDRSTRLEN];
            in_addr a{s.dmz};
            prerouting.push_back(to_router + "dnat to " +
                                 inet_ntop(AF_INET, &a, host, sizeof host));
        }

        std::vector<std::string> lans(s.lans.begin(), s.lans.end());
        bool lan_only = (s.features & NAT_FEATURE_LAN_ONLY) != 0 && !lans.empty();
        postrouting.push_back((lan_only ? "iifname " + name_set(lans) + " " : "") + "oifname " +
                              name_set(wans) + " masquerade");

        input.push_back(in + "ct state established,related accept");
        input.push_back(in + "icmp type echo-request " + (s.echo ? "accept" : "drop"));
        if (!ports.empty()) {
            input.push_back(in + "tcp dport " + port_set(ports) + " accept");
            input.push_back(in + "udp dport " + port_set(ports) + " accept");
        }
        if (s.inbound_filter) input.push_back(in + "drop");

        forward.push_back(in + "ct state established,related accept");
        if (s.dmz != 0) forward.push_back(in + "ct status dnat accept");
        if (s.inbound_filter) forward.push_back(in + "drop");
    }

    std::string out = std::string("table ") + TABLE + "\ndelete table " + TABLE + "\n";
    out += std::string("table ") + TABLE + " {\n";
    out += chain("prerouting", "nat", "prerouting", "dstnat", prerouting);
    out += chain("postrouting", "nat", "postrouting", "srcnat", postrouting);
    out += chain("input", "filter", "input", "filter", input);
    out += chain("forward", "filter", "forward", "filter", forward);
    return out + "}\n";
}

std::vector<std::string> stale_addresses(const State &s) {
    std::vector<std::string> stale;
    auto held = [&](const std::string &address) {
        for (const std::vector<Wan> *list : {&s.wans, &s.carriers})
            for (const Wan &w : *list)
                if (w.address == address) return true;
        return false;
    };
    for (const Wan &g : s.gone)
        if (!g.address.empty() && !held(g.address) &&
            std::find(stale.begin(), stale.end(), g.address) == stale.end())
            stale.push_back(g.address);
    return stale;
}

std::vector<std::pair<std::string, std::string>> untranslated_flows(
    const std::string &listing, const std::vector<std::string> &local) {
    std::vector<std::pair<std::string, std::string>> flows;
    auto is_local = [&](const std::string &a) {
        return std::find(local.begin(), local.end(), a) != local.end();
    };
    size_t start = 0;
    while (start < listing.size()) {
        size_t end = listing.find('\n', start);
        if (end == std::string::npos) end = listing.size();
        // "udp 17 29 src=A dst=B sport=.. dport=.. [UNREPLIED] src=B dst=A sport=.. ..."
        std::vector<std::string> src, dst;
        for (const std::string &w :
             split_words(std::string_view(listing).substr(start, end - start))) {
            if (w.rfind("src=", 0) == 0) src.push_back(w.substr(4));
            if (w.rfind("dst=", 0) == 0) dst.push_back(w.substr(4));
        }
        start = end + 1;
        if (src.size() < 2 || dst.size() < 2) continue;
        if (src[0] != dst[1] || dst[0] != src[1] || is_local(src[0]) || is_local(dst[0])) continue;
        std::pair<std::string, std::string> flow{src[0], dst[0]};
        if (std::find(flows.begin(), flows.end(), flow) == flows.end()) flows.push_back(flow);
    }
    return flows;
}

}  // namespace nat
