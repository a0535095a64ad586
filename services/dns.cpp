// The resolver file dnsmasq reads its upstream servers from, and the second PPPoE session's
// resolver file in the Japan region. The file on disk is the only state.
#include "services/dns.h"

#include "platform/vesk_shared.h"
#include "shared/file.h"
#include "shared/generated_file.h"
#include "shared/settings.h"
#include "shared/store.h"
#include "shared/values.h"

#include <arpa/inet.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

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

bool is_server_line_for(std::string_view piece, const char *address) {
    std::string line(piece);
    const char *first = nullptr, *second = nullptr;
    split_line(line.data(), first, second);
    return first && second && std::strcmp(first, "nameserver") == 0 &&
           std::strcmp(second, address) == 0;
}

// Calls `visit(piece, end)` for the file's text as fgets reads it into a buffer of `size`
// bytes: pieces of at most size - 1 characters, each ending at a newline or where the buffer
// is full; `end` is the offset just past the piece. Stops when `visit` returns true.
template <typename Visit>
void for_each_piece(std::string_view text, std::size_t size, Visit visit) {
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t newline = text.find('\n', at);
        std::size_t length = newline == std::string_view::npos ? text.size() - at : newline - at + 1;
        if (length > size - 1) length = size - 1;
        if (visit(text.substr(at, length), at + length)) return;
        at += length;
    }
}

// Where a search from the start for the server line of `address` leaves the file position:
// just past that line, or nothing when the file has none (the search ends at the end).
std::optional<std::size_t> find_server_line(std::string_view text, const char *address,
                                            std::size_t line_size) {
    std::optional<std::size_t> found;
    for_each_piece(text, line_size, [&](std::string_view piece, std::size_t end) {
        if (is_server_line_for(piece, address)) found = end;
        return found.has_value();
    });
    return found;
}

// A server token from the store goes into a line of its own: a line end or a blank in it would
// make lines or words of its own, and '#' or ';' would start a comment.
bool server_token_fits(const char *routine, const char *token) {
    return values::check(routine, "DNS server", token, values::Kind::token);
}

// The file's text; nothing, after perror with `label` and with errno kept, when it cannot be
// read.
std::optional<std::string> read_whole(const char *path, const char *label) {
    File f = open_file(path, "r");
    std::string text;
    if (f) {
        char buf[4096];
        std::size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f.get())) > 0) text.append(buf, n);
        if (!std::ferror(f.get())) return text;
    }
    int error = errno;
    std::perror(label);
    errno = error;
    return std::nullopt;
}

// The resolver file keeps its mode when it is rewritten in place.
mode_t mode_of(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 ? (st.st_mode & 07777) : GeneratedFile::kCreationMode;
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
    std::optional<GeneratedFile> session2;

    if (in_japan_region() && std::strcmp(ifname, "ppp1") == 0) {
        session2.emplace(kSession2Path);
        if (!*session2) return errno;
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

    std::optional<std::string> resolv = read_whole(kResolvPath, kResolvPath);
    if (!resolv) return errno;
    std::string session2_text;
    merge_dns_servers(*resolv, list.text, session2 ? &session2_text : nullptr);
    if (session2) {
        session2->put(session2_text);
        if (int error = session2->commit()) return error;
    }
    if (int error = write_generated_file(kResolvPath, *resolv, mode_of(kResolvPath)))
        return error;

    reload_dnsmasq();
    return 0;
}

void merge_dns_servers(std::string &resolv, const char *list, std::string *session2) {
    // The router edits the file in place ("r+"): the position starts at the beginning, each
    // search moves it, and the options line is written wherever the last search left it.
    std::size_t position = 0;
    const char *pos = list;
    char token[kDnsTokenSize];
    while (next_dns_token(pos, token)) {
        if (!server_token_fits("update_resolv_conf", token)) continue;
        std::optional<std::size_t> present = find_server_line(resolv, token, kResolvLineSize);
        position = present.value_or(resolv.size());
        if (is_special_address(token)) {
            std::printf("Bypass special address '%s'\n", token);
        } else if (!present) {
            resolv += std::string("nameserver ") + token + "\n";
            position = resolv.size();
        }
        // The session-2 file takes every token, special addresses included.
        if (session2) *session2 += std::string("nameserver ") + token + "\n";
    }
    const std::string options = kOptionsLine;
    resolv.replace(position, std::min(options.size(), resolv.size() - position), options);
}

bool merge_resolv_nameservers(const char *servers, std::size_t line_size) {
    std::optional<std::string> resolv = read_whole(kResolvPath, kResolvPath);
    if (!resolv) return false;
    add_missing_nameservers(*resolv, servers, line_size);
    return write_generated_file(kResolvPath, *resolv, mode_of(kResolvPath)) == 0;
}

void add_missing_nameservers(std::string &resolv, const char *servers, std::size_t line_size) {
    const char *p = servers;
    for (;;) {
        while (*p == ' ') ++p;
        if (*p == '\0') break;
        std::size_t length = std::strcspn(p, " ");
        // An address longer than a line holds is taken in pieces, as a fixed-width scan does.
        std::string address(p, std::min(length, line_size - 1));
        p += address.size();
        if (!server_token_fits("merge_resolv_nameservers", address.c_str())) continue;
        if (!find_server_line(resolv, address.c_str(), line_size))
            resolv += "nameserver " + address + "\n";
    }
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

    GeneratedFile f(kResolvPath, kPppTempPath, kPppTempPath);
    if (!f) return;
    const char *pos = servers;
    char token[kDnsTokenSize];
    while (next_dns_token(pos, token))
        if (server_token_fits("write_ppp_resolv", token)) f.printf("nameserver %s\n", token);
    f.put(kOptionsLine);
    f.commit();
}

int remove_wan_dns(const char *ifname) {
    if (!ifname) ifname = "";
    std::optional<std::string> resolv = read_whole(kResolvPath, "fopen /tmp/resolv.conf");
    if (!resolv) return errno;
    GeneratedFile out(kResolvPath, "fopen /tmp/resolv.tmp", kRemoveTempPath);
    if (!out) return errno;

    bool japan = in_japan_region();
    out.put(remove_dns_servers(*resolv, list_of_stopping_wan(ifname, japan), japan));
    if (int error = out.commit()) return error;
    reload_dnsmasq();
    return 0;
}

std::string remove_dns_servers(std::string_view resolv, const char *list, bool japan) {
    std::string kept;
    for_each_piece(resolv, kResolvLineSize, [&](std::string_view piece, std::size_t) {
        std::string line(piece);
        const char *first = nullptr, *address = nullptr;
        split_line(line.data(), first, address);
        if (!first || !address || std::strcmp(first, "nameserver") != 0) return false;
        bool drop = japan ? drop_in_japan(list, address) : drop_outside_japan(list, address);
        if (!drop) kept += std::string("nameserver ") + address + "\n";
        return false;
    });
    return kept + kOptionsLine;
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
