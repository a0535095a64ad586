// The NAT library on the host: every call is traced, then changes the shared state
// (nat_state.cpp) and, when the state's table changed, rebuilds our nft table whole from it
// (nat_ruleset.cpp). Connections are flushed with conntrack, forwarding is switched on with
// sysctl; all three programs are looked up on PATH (nat_runner.cpp).
#include "platform/nat.h"

#include "platform/host/nat_ruleset.h"
#include "platform/host/nat_runner.h"
#include "platform/host/nat_state.h"
#include "platform/host/trace.h"
#include "platform/host/unique_fd.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

using nat::State;
using nat::Wan;

// The interface's IPv4 address now, "" when it has none (or does not exist).
std::string address_of(const std::string &ifname) {
    host::UniqueFd sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock.valid()) return "";
    ifreq ifr{};
    std::memcpy(ifr.ifr_name, ifname.c_str(), std::min(ifname.size(), sizeof ifr.ifr_name - 1));
    if (::ioctl(sock.get(), SIOCGIFADDR, &ifr) != 0) return "";
    char text[INET_ADDRSTRLEN];
    const auto *sin = reinterpret_cast<const sockaddr_in *>(&ifr.ifr_addr);
    return inet_ntop(AF_INET, &sin->sin_addr, text, sizeof text) ? text : "";
}

bool named(const char *routine, const char *ifname) {
    if (nat::valid_ifname(ifname)) return true;
    if (ifname == nullptr || *ifname == '\0')
        std::fprintf(stderr, "%s: no interface name\n", routine);
    else
        std::fprintf(stderr, "%s: unusable interface name \"%s\"\n", routine, ifname);
    return false;
}

// Runs `argv` and tells whether it succeeded, after a line on stderr when it did not.
bool run_ok(const char *routine, const std::vector<std::string> &argv, const std::string &input,
            const char *doing, bool (*accept)(const nat::Run &) = nullptr) {
    nat::Run r = nat::run(argv, input);
    if (r.start_error != 0) {
        std::fprintf(stderr, "%s: cannot run %s: %s\n", routine, argv[0].c_str(),
                     std::strerror(r.start_error));
        return false;
    }
    if (r.status == 0 || (accept != nullptr && accept(r))) return true;
    std::string cause = nat::first_line(r.output);
    if (cause.empty()) cause = "exit status " + std::to_string(r.status);
    std::fprintf(stderr, "%s: %s %s failed: %s\n", routine, argv[0].c_str(), doing, cause.c_str());
    return false;
}

bool load_table(const char *routine, const State &state) {
    return run_ok(routine, {"nft", "-f", "-"}, nat::ruleset(state), "loading the NAT table");
}

// Rebuilds the table when the change altered it.
nat::Apply table_change(const char *routine) {
    return [routine](const State &old_state, const State &new_state) {
        return nat::ruleset(old_state) == nat::ruleset(new_state) || load_table(routine, new_state);
    };
}

int change(const char *routine, int success, int failure,
           const std::function<bool(State &)> &edit) {
    return nat::update(
        routine, failure, [&](State &s) { return edit(s) ? success : failure; },
        table_change(routine));
}

// Remembers an address `ifname` was known by until the next connection recovery, once.
void remember_gone(State &s, const std::string &ifname, const std::string &address) {
    Wan w{ifname, address};
    if (!address.empty() && std::find(s.gone.begin(), s.gone.end(), w) == s.gone.end())
        s.gone.push_back(w);
}

// Remembers the addresses `w` was known by: at hook time and now.
void retire(State &s, const Wan &w) {
    remember_gone(s, w.ifname, w.address);
    remember_gone(s, w.ifname, address_of(w.ifname));
}

// Hooks `ifname` into `list` with its current address. Hooked again with another address, the
// old one is retired: connections bound to it no longer work.
void hook(State &s, std::vector<Wan> &list, const std::string &ifname) {
    std::string address = address_of(ifname);
    auto it = std::find_if(list.begin(), list.end(), [&](const Wan &w) { return w.ifname == ifname; });
    if (it == list.end()) {
        list.push_back(Wan{ifname, address});
    } else if (!address.empty() && address != it->address) {
        remember_gone(s, it->ifname, it->address);
        it->address = address;
    }
}

void unhook(State &s, std::vector<Wan> &list, const char *ifname) {
    auto keep = list.begin();
    for (auto it = list.begin(); it != list.end(); ++it) {
        if (ifname == nullptr || it->ifname == ifname) retire(s, *it);
        else *keep++ = *it;
    }
    list.erase(keep, list.end());
}

// Every IPv4 address of this host.
std::vector<std::string> local_addresses() {
    std::vector<std::string> addresses;
    ifaddrs *list = nullptr;
    if (::getifaddrs(&list) != 0) return addresses;
    for (ifaddrs *i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
        char text[INET_ADDRSTRLEN];
        const auto *sin = reinterpret_cast<const sockaddr_in *>(i->ifa_addr);
        if (inet_ntop(AF_INET, &sin->sin_addr, text, sizeof text)) addresses.push_back(text);
    }
    ::freeifaddrs(list);
    return addresses;
}

// conntrack -D reports "0 flow entries have been deleted." with status 1 when nothing matched.
bool nothing_to_delete(const nat::Run &r) {
    return r.status == 1 && r.output.find(" 0 flow entries have been deleted") != std::string::npos;
}

}  // namespace

int agApi_feature_set(unsigned int mask) {
    trace::call("agApi_feature_set", {trace::number(mask)});
    return change("agApi_feature_set", 0, -1, [&](State &s) {
        s.features = mask;
        return true;
    });
}

int agApi_natHook(const char *ifname) {
    const char *routine = "agApi_natHook";
    trace::call(routine, {trace::text(ifname)});
    if (!named(routine, ifname)) return -1;
    return change(routine, 0, -1, [&](State &s) {
        hook(s, s.wans, ifname);
        return true;
    });
}

int agApi_natUnhook(const char *ifname) {
    const char *routine = "agApi_natUnhook";
    trace::call(routine, {trace::text(ifname)});
    if (ifname != nullptr && !named(routine, ifname)) return -1;
    return change(routine, 0, -1, [&](State &s) {
        unhook(s, s.wans, ifname);
        unhook(s, s.carriers, ifname);
        return true;
    });
}

int agApi_natLanHook(const char *ifname) {
    const char *routine = "agApi_natLanHook";
    trace::call(routine, {trace::text(ifname)});
    if (!named(routine, ifname)) return -1;
    return change(routine, 0, -1, [&](State &s) {
        s.lans.insert(ifname);
        return true;
    });
}

int agApi_natLanUnhook(const char *ifname) {
    const char *routine = "agApi_natLanUnhook";
    trace::call(routine, {trace::text(ifname)});
    if (!named(routine, ifname)) return -1;
    return change(routine, 0, -1, [&](State &s) {
        s.lans.erase(ifname);
        return true;
    });
}

int agApi_natPptpWanHook(const char *ifname) {
    const char *routine = "agApi_natPptpWanHook";
    trace::call(routine, {trace::text(ifname)});
    if (!named(routine, ifname)) return -1;
    return change(routine, 0, -1, [&](State &s) {
        hook(s, s.carriers, ifname);
        return true;
    });
}

// Our table filters only hooked interfaces, so a probe through an interface that is not
// hooked passes already; nothing to change.
int agApi_natProbeHook(const char *ifname) {
    trace::call("agApi_natProbeHook", {trace::text(ifname)});
    return named("agApi_natProbeHook", ifname) ? 0 : -1;
}

int agApi_natWanIfCnt(int *count) {
    trace::call("agApi_natWanIfCnt", {trace::out_ptr(count, "count")});
    if (count == nullptr) return -1;
    return nat::update(
        "agApi_natWanIfCnt", -1,
        [&](State &s) {
            *count = static_cast<int>(s.wans.size());
            return 0;
        },
        table_change("agApi_natWanIfCnt"));
}

// The region changes nothing in our table.
int agApi_natSetRegion(const char *region) {
    trace::call("agApi_natSetRegion", {trace::text(region)});
    if (region != nullptr) return 0;
    std::fprintf(stderr, "agApi_natSetRegion: no region\n");
    return -1;
}

int agApi_fwDMZRuleSet(int index, int enable, uint32_t host) {
    const char *routine = "agApi_fwDMZRuleSet";
    trace::call(routine, {trace::number(index), trace::number(enable), trace::ipv4(host)});
    if (index != 0) {
        std::fprintf(stderr, "%s: no DMZ rule %d (there is rule 0 only)\n", routine, index);
        return 0;
    }
    uint32_t first = ntohl(host) >> 24;
    if (enable && (first == 0 || first == 127 || first >= 224)) {
        std::fprintf(stderr, "%s: %s cannot be a DMZ host\n", routine,
                     inet_ntoa(in_addr{host}));
        return 0;
    }
    return change(routine, 1, 0, [&](State &s) {
        s.dmz = enable ? host : 0;
        return true;
    });
}

int agApi_natSetInboundFilter(int on) {
    trace::call("agApi_natSetInboundFilter", {trace::number(on)});
    return change("agApi_natSetInboundFilter", 0, -1, [&](State &s) {
        s.inbound_filter = on != 0;
        return true;
    });
}

// Rebuilds the table even when the state holds it already (someone may have flushed the
// ruleset), then switches IPv4 forwarding on, never before the table is in place.
int agApi_natEnable(void) {
    const char *routine = "agApi_natEnable";
    trace::call(routine, {});
    int r = nat::update(
        routine, -1, [](State &) { return 0; },
        [routine](const State &, const State &s) { return load_table(routine, s); }, true);
    if (r != 0) return -1;
    return run_ok(routine, {"sysctl", "-q", "-w", "net.ipv4.ip_forward=1"}, "",
                  "switching forwarding on")
               ? 0
               : -1;
}

int agApi_setDeviceListenPort(int service, int port, int enable) {
    const char *routine = "agApi_setDeviceListenPort";
    trace::call(routine, {trace::number(service), trace::number(port), trace::number(enable)});
    if (service < 0 || (enable && (port < 1 || port > 65535))) {
        std::fprintf(stderr, "%s: unusable service %d or port %d\n", routine, service, port);
        return -1;
    }
    return change(routine, 0, -1, [&](State &s) {
        if (enable) s.listen[service] = port;
        else s.listen.erase(service);
        return true;
    });
}

int agApi_fwEchoRespSet(int on) {
    trace::call("agApi_fwEchoRespSet", {trace::number(on)});
    return change("agApi_fwEchoRespSet", 1, 0, [&](State &s) {
        s.echo = on != 0;
        return true;
    });
}

// A flow NATed through an interface that is no longer hooked keeps that interface's address
// until it times out, which a continuous stream never does; so does a flow whose packets left
// untranslated while the default route already pointed at a WAN not hooked yet (wan_up moves
// the route before it re-hooks NAT). Deleting both kinds of conntrack entries makes the next
// packet start a new connection, translated by the WAN hooked now.
int veskNat_DoConnRecovery(void) {
    const char *routine = "veskNat_DoConnRecovery";
    trace::call(routine, {});
    auto conntrack_delete = [&](std::vector<std::string> filter) {
        std::vector<std::string> argv{"conntrack", "-D", "-f", "ipv4"};
        argv.insert(argv.end(), filter.begin(), filter.end());
        return run_ok(routine, argv, "", "deleting connections", nothing_to_delete);
    };
    return nat::update(
        routine, -1,
        [&](State &s) {
            for (const std::string &address : nat::stale_addresses(s))
                for (const char *direction : {"--orig-dst", "--reply-dst"})
                    if (!conntrack_delete({direction, address})) return -1;  // kept for later
            s.gone.clear();
            if (s.wans.empty() && s.carriers.empty()) return 0;
            nat::Run listing = nat::run({"conntrack", "-L", "-f", "ipv4"}, "");
            if (listing.start_error != 0 || listing.status != 0) {
                std::fprintf(stderr, "%s: conntrack listing connections failed: %s\n", routine,
                             listing.start_error != 0 ? std::strerror(listing.start_error)
                                                      : nat::first_line(listing.output).c_str());
                return -1;
            }
            for (const auto &[from, to] : nat::untranslated_flows(listing.output, local_addresses()))
                if (!conntrack_delete({"--orig-src", from, "--orig-dst", to, "--reply-dst", from}))
                    return -1;
            return 0;
        },
        table_change(routine));
}
