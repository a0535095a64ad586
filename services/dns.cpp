// The resolver file dnsmasq reads its upstream servers from, and the second PPPoE session's
// resolver file in the Japan region. The file on disk is the only state.
#include "services/dns.h"

#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "shared/file.h"
#include "shared/store.h"
#include "shared/settings.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char *kResolvPath = "/tmp/resolv.conf";
constexpr const char *kSession2Path = "/tmp/resolv_session2.conf";
constexpr const char *kPppTempPath = "/tmp/resolv.ppp";
constexpr const char *kRemoveTempPath = "/tmp/resolv.tmp";
constexpr const char *kOptionsLine = "options single-request\n";

// One line of the resolver file per read; a longer line comes in pieces.
constexpr std::size_t kResolvLineSize = 100;
// The joined list: room for two full lists and the IPv6 servers; anything beyond is cut.
constexpr std::size_t kListSize = 1024;
// Each half of the reordered user list.
constexpr std::size_t kReorderSize = 128;
constexpr std::size_t kRouteLineSize = 128;
constexpr std::size_t kWanIfnameSize = 32;

using store::match;

using store::get;

// Appends `text` to the C string in `buf` of `size` bytes, cutting it where the buffer ends.
// False when something was cut.
bool append_cut(char *buf, std::size_t size, const char *text) {
    std::size_t used = std::strlen(buf);
    std::size_t room = size - 1 - used;
    std::size_t length = std::strlen(text);
    std::size_t kept = length < room ? length : room;
    std::memcpy(buf + used, text, kept);
    buf[used + kept] = '\0';
    return kept == length;
}

// The joined DNS list of a merge.
struct DnsList {
    char text[kListSize] = "";
    bool cut = false;

    void add(const char *part) {
        if (!append_cut(text, sizeof text, part)) cut = true;
    }
    // A space, then `part`.
    void add_spaced(const char *part) {
        add(" ");
        add(part);
    }
};

// Splits a resolver line on blanks and newlines; `second` is null when there is no second word.
void split_line(char *line, const char *&first, const char *&second) {
    char *rest = nullptr;
    first = strtok_r(line, " \t\n", &rest);
    second = first ? strtok_r(nullptr, " \t\n", &rest) : nullptr;
}

bool is_server_line_for(char *line, const char *address) {
    const char *first = nullptr, *second = nullptr;
    split_line(line, first, second);
    return first && second && std::strcmp(first, "nameserver") == 0 &&
           std::strcmp(second, address) == 0;
}

// Rewinds and reads the file up to the server line for `address`. True when it was found: the
// file position is then just past that line; otherwise it is at the end of the file.
bool seek_server_line(std::FILE *f, const char *address) {
    std::fseek(f, 0, SEEK_SET);
    char line[kResolvLineSize];
    while (std::fgets(line, sizeof line, f))
        if (is_server_line_for(line, address)) return true;
    return false;
}

// Addresses dnsmasq must never be given: no address, loopback, broadcast, or too short to be
// a dotted quad.
bool is_special_address(const char *token) {
    return std::strstr(token, "0.0.0.0") || std::strstr(token, "127.0.0.1") ||
           std::strstr(token, "255.255.255.255") || std::strlen(token) <= 6;
}

void reload_dnsmasq() {
    char signal[8];
    std::snprintf(signal, sizeof signal, "-%d", 1);  // SIGHUP: re-read the resolver file
    char killall[] = "killall";
    char dnsmasq[] = "dnsmasq";
    char *const argv[] = {killall, signal, dnsmasq, nullptr};
    _eval_daemon(argv, ">/dev/console", 0, nullptr, 0);
}

// ---- List choice for a merge -----------------------------------------------------------

bool runs_over_static_link() {
    return (match("wan_proto", "pptp") && match("static_pptp_enable", "1")) ||
           (match("wan_proto", "pppoe") && match("static_pppoe_enable", "1")) ||
           (match("wan_proto", "l2tp") && match("static_l2tp_enable", "1"));
}

// The Ethernet WAN has no address yet in mode 1: only a PPP tunnel's own servers can be used.
void choose_unaddressed_list(DnsList &list) {
    const char *learnt = nullptr;
    const char *static_key = nullptr;
    if (match("wan_proto", "pptp")) {
        learnt = "pptp_dhcp_dns";
        static_key = "static_pptp_enable";
    } else if (match("wan_proto", "l2tp")) {
        learnt = "l2tp_dhcp_dns";
        static_key = "static_l2tp_enable";
    } else {
        return;
    }
    if (!match(static_key, "1"))
        list.add(get(learnt));
    else if (match("wan_dns_sel", "1"))
        list.add(get("wan_dns1"));
}

// The user's servers that the WAN route does not reach come first.
void reorder_user_servers(DnsList &list) {
    char unrouted[kReorderSize] = "";
    char routed[kReorderSize] = "";
    bool whole = true;
    const char *pos = get("wan_dns1");
    char token[kDnsTokenSize];
    while (next_dns_token(pos, token)) {
        char *half = dns_routed_via_wan(token) == 0 ? unrouted : routed;
        whole = append_cut(half, kReorderSize, token) && whole;
        whole = append_cut(half, kReorderSize, " ") && whole;
    }
    if (!whole)
        std::fprintf(stderr, "update_resolv_conf: wan_dns1 longer than %zu characters, cut\n",
                     kReorderSize - 1);

    list = DnsList{};
    if (unrouted[0] == '\0') {
        list.add(get("wan_dns"));
        list.add_spaced(get("wan_dns1"));
    } else {
        list.add(unrouted);
        list.add_spaced(routed);
    }
}

void choose_dynamic_list(DnsList &list, const char *ifname) {
    bool user = match("wan_dns_sel", "1");
    if (user)
        list.add(get(std::strcmp(ifname, "rm_usb0") == 0 ? "wan_dns" : "wan_dns1"));
    else
        list.add(get(match("wwan_wan_type", "0") ? "wan1_dns" : "wan_dns"));

    if (wan_proto_is_ppp() && user && !match("ParentalControl", "1")) reorder_user_servers(list);

    if (match("wan_proto", "pptp"))
        list.add_spaced(get("pptp_dhcp_dns"));
    else if (match("wan_proto", "pppoe"))
        list.add_spaced(get("pppoe_dhcp_dns"));
    else if (match("wan_proto", "l2tp"))
        list.add_spaced(get("l2tp_dhcp_dns"));
}

void choose_static_list(DnsList &list) {
    if (match("ParentalControl", "1")) {
        list.add(get("wan_dns1"));
        return;
    }
    bool server_known = (match("wan_proto", "pptp") && isValidIpAddr(get("pptp_gateway"))) ||
                        (match("wan_proto", "l2tp") && isValidIpAddr(get("l2tp_gateway_ip")));
    if (server_known) {
        list.add(get("wan_dns"));
        if (match("wan_dns_sel", "1")) list.add_spaced(get("wan_dns1"));
    } else {
        list.add(get(match("wan_dns_sel", "1") ? "wan_dns1" : "wan_dns"));
    }
}

void add_ipv6_servers(DnsList &list) {
    if (!match("ipv6_proto", "fixed")) return;
    for (const char *key : {"ipv6_pri_dns", "ipv6_sec_dns"}) {
        const char *server = get(key);
        if (server[0] != '\0') list.add_spaced(server);
    }
}

// ---- Removal -----------------------------------------------------------------------------

// Outside the Japan region a server stays when it is the last one of its WAN's list.
bool drop_outside_japan(const char *list, const char *address) {
    const char *pos = list;
    char token[kDnsTokenSize];
    while (next_dns_token(pos, token))
        if (std::strcmp(token, address) == 0) return *pos == ' ';
    return false;
}

bool drop_in_japan(const char *list, const char *address) {
    const char *pos = list;
    char token[kDnsTokenSize];
    while (next_dns_token(pos, token))
        if (std::strcmp(token, address) == 0) return true;
    return false;
}

// The DNS list whose servers leave the resolver file when WAN `ifname` goes down.
const char *list_of_stopping_wan(const char *ifname, bool japan) {
    bool lte = std::strcmp(ifname, get("wan1_ifname")) == 0;
    if (!japan) return get(lte ? "wan1_dns" : "wan_dns");
    if (std::strcmp(ifname, "ppp1") == 0)
        return get(match("wan2_dns_sel", "1") ? "wan2_dns1" : "wan2_dns");
    if (lte) return get("wan1_dns");
    return get(match("wan_dns_sel", "1") ? "wan_dns1" : "wan_dns");
}

}  // namespace

bool next_dns_token(const char *&pos, char (&token)[kDnsTokenSize]) {
    pos += std::strspn(pos, " ");
    std::size_t length = std::strcspn(pos, " ");
    std::size_t kept = length < kDnsTokenSize - 1 ? length : kDnsTokenSize - 1;
    std::memcpy(token, pos, kept);
    token[kept] = '\0';
    pos += length;
    return kept > 0;
}

int update_resolv_conf(const char *ifname) {
    if (!ifname) ifname = "";
    DnsList list;
    File session2;

    if (in_japan_region() && std::strcmp(ifname, "ppp1") == 0) {
        session2 = open_file(kSession2Path, "w");
        if (!session2) {
            int err = errno;
            std::perror(kSession2Path);
            return err;
        }
        list.add(get(match("wan2_dns_sel", "1") ? "wan2_dns1" : "wan2_dns"));
    } else if (match("wwan_wan_type", "1") && match("wan_ipaddr", "0.0.0.0")) {
        choose_unaddressed_list(list);
    } else if (!runs_over_static_link()) {
        choose_dynamic_list(list, ifname);
    } else {
        choose_static_list(list);
    }
    add_ipv6_servers(list);
    if (list.cut)
        std::fprintf(stderr, "update_resolv_conf: DNS list longer than %zu characters, cut\n",
                     kListSize - 1);

    File resolv = open_file(kResolvPath, "r+");
    if (!resolv) {
        int err = errno;
        std::perror(kResolvPath);
        return err;
    }
    merge_dns_servers(resolv.get(), list.text, session2.get());
    resolv.reset();
    session2.reset();

    reload_dnsmasq();
    return 0;
}

void merge_dns_servers(std::FILE *f, const char *list, std::FILE *session2) {
    const char *pos = list;
    char token[kDnsTokenSize];
    while (next_dns_token(pos, token)) {
        bool present = seek_server_line(f, token);
        if (is_special_address(token)) {
            std::printf("Bypass special address '%s'\n", token);
        } else if (!present) {
            std::fseek(f, 0, SEEK_CUR);  // from reading to writing
            std::fprintf(f, "nameserver %s\n", token);
        }
        // The session-2 file takes every token, special addresses included.
        if (session2) std::fprintf(session2, "nameserver %s\n", token);
    }

    // Wherever the last search left the position: the end after an append, just past the
    // matching line otherwise, the start when the list was empty.
    std::fseek(f, 0, SEEK_CUR);
    std::fputs(kOptionsLine, f);
}

void write_ppp_resolv(int mode) {
    const char *servers = "";
    if (mode != 1) {
        if (match("wan_proto", "pptp"))
            servers = get("pptp_dhcp_dns");
        else if (match("wan_proto", "pppoe"))
            servers = get("pppoe_dhcp_dns");
        else if (match("wan_proto", "l2tp"))
            servers = get("l2tp_dhcp_dns");
    }

    File f = open_file(kPppTempPath, "w");
    if (!f) {
        std::perror(kPppTempPath);
        return;
    }
    const char *pos = servers;
    char token[kDnsTokenSize];
    while (next_dns_token(pos, token)) std::fprintf(f.get(), "nameserver %s\n", token);
    std::fputs(kOptionsLine, f.get());
    f.reset();

    std::remove(kResolvPath);
    if (std::rename(kPppTempPath, kResolvPath) != 0)
        std::fprintf(stderr, "write_ppp_resolv: rename %s: %s\n", kPppTempPath,
                     std::strerror(errno));
}

int remove_wan_dns(const char *ifname) {
    if (!ifname) ifname = "";
    File in = open_file(kResolvPath, "r");
    if (!in) {
        int err = errno;
        std::perror("fopen /tmp/resolv.conf");
        return err;
    }
    File out = open_file(kRemoveTempPath, "w");
    if (!out) {
        int err = errno;
        std::perror("fopen /tmp/resolv.tmp");
        return err;
    }

    bool japan = in_japan_region();
    remove_dns_servers(in.get(), out.get(), list_of_stopping_wan(ifname, japan), japan);
    in.reset();
    out.reset();

    std::remove(kResolvPath);
    if (std::rename(kRemoveTempPath, kResolvPath) != 0)
        std::fprintf(stderr, "remove_wan_dns: rename %s: %s\n", kRemoveTempPath,
                     std::strerror(errno));
    reload_dnsmasq();
    return 0;
}

void remove_dns_servers(std::FILE *in, std::FILE *out, const char *list, bool japan) {
    char line[kResolvLineSize];
    while (std::fgets(line, sizeof line, in)) {
        const char *first = nullptr, *address = nullptr;
        split_line(line, first, address);
        if (!first || !address || std::strcmp(first, "nameserver") != 0) continue;
        bool drop = japan ? drop_in_japan(list, address) : drop_outside_japan(list, address);
        if (!drop) std::fprintf(out, "nameserver %s\n", address);
    }
    std::fputs(kOptionsLine, out);
}

int dns_routed_via_wan(const char *address) {
    char wan_ifname[kWanIfnameSize] = "";
    store::read("wan_ifname", wan_ifname, sizeof wan_ifname);
    File f = open_file("/proc/net/route", "r");
    if (!f) return 0;
    return route_table_covers(f.get(), wan_ifname, address);
}

int route_table_covers(std::FILE *table, const char *wan_ifname, const char *address) {
    in_addr_t target = inet_addr(address ? address : "");
    char line[kRouteLineSize];
    while (std::fgets(line, sizeof line, table)) {
        char iface[32];
        unsigned destination = 0, gateway = 0, mask = 0;
        int flags = 0, refcnt = 0, use = 0, metric = 0;
        if (std::sscanf(line, "%31s %08x %08x %d %d %d %d %08x", iface, &destination, &gateway,
                        &flags, &refcnt, &use, &metric, &mask) != 8)
            continue;
        // Both sides in the kernel's byte order: the table prints the raw network-order words.
        if ((destination & mask) == (target & mask) && std::strcmp(iface, wan_ifname) == 0)
            return 1;
    }
    return 0;
}
