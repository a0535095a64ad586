// RIP: zebra and ripd configuration for the LAN and the WAN interface, and the two daemons.
// On the WAN side the LAN subnet and the user's static routes are kept out of what is sent.
#include "services/rip.h"

#include "platform/nat.h"
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "shared/c_numbers.h"
#include "shared/file.h"
#include "shared/generated_file.h"
#include "shared/store.h"
#include "shared/settings.h"
#include "shared/values.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr const char *kRipdConf = "/tmp/ripd.conf";
constexpr const char *kZebraConf = "/tmp/zebra.conf";
constexpr const char *kMulticastFlag = "/tmp/M.conf";

constexpr int kMaxStaticRoutes = 32;
constexpr int kRouteFields = 7;
constexpr std::size_t kIfnameSize = 100;

using store::get;

int key_int(const char *key) { return atoi32(get(key)); }

// The store values written into an interface section, read once per section.
struct RipSettings {
    const char *version = get("rip_version");
    int direction = key_int("rip_dir");
    int multicast = key_int("rip_multicast");
    bool enabled = key_int("rip_enable") == 1;
    const char *lan_ipaddr = get("lan_ipaddr");
    const char *lan_netmask = get("lan_netmask");
};

void start_daemon(char *const argv[]) { _eval_daemon(argv, ">/dev/console", 0, nullptr, 0); }

// Creates (truncating with "w", keeping with "a") and closes `path`; errno after perror, or 0.
int touch(const char *path, const char *mode) {
    File f = open_file(path, mode);
    if (!f) {
        int error = errno;
        std::perror(path);
        return error;
    }
    return 0;
}

void write_send_version(GeneratedFile &f, const RipSettings &s) {
    if (s.multicast == 0 && atoi32(s.version) == 2)
        f.put("ip rip send version 2\n");
    else
        f.printf("ip rip send version %s\n", s.version);
}

// Ones of a dotted netmask, octet by octet; an octet of 0 or 1 counts nothing.
int mask_length(const char *netmask) {
    char octets[4][VESK_TOKEN_SIZE] = {};
    int count = getTokens(netmask, ".", octets, 4);
    int length = 0;
    for (int i = 0; i < count; ++i) {
        int value = atoi32(octets[i]);
        if (value > 1) length += std::popcount(static_cast<unsigned>(value));
    }
    return length;
}

// The deny line for one static route; the classful form takes the length from the address
// class, and class D and E destinations get no line.
void write_route_filter(GeneratedFile &f, const char *ifname, const char *destination,
                        const char *netmask, bool classless) {
    if (classless) {
        f.printf("access-list private%s deny %s/%d\n", ifname, destination,
                     mask_length(netmask));
        return;
    }
    int first_octet = atoi32(destination);
    int length = 0;
    if (first_octet >= 1 && first_octet <= 127) length = 8;
    else if (first_octet >= 128 && first_octet <= 191) length = 16;
    else if (first_octet >= 192 && first_octet <= 223) length = 24;
    if (length) f.printf("access-list private%s deny %s/%d\n", ifname, destination, length);
}

// What this interface must not advertise: nothing for the LAN; for the WAN the active static
// routes and the LAN subnet.
void write_private_filter(GeneratedFile &f, const char *ifname, bool is_lan, const RipSettings &s,
                          char (*routes)[VESK_TOKEN_SIZE], int route_count, bool classless) {
    if (!is_lan) {
        for (int i = 0; i < route_count && i < kMaxStaticRoutes; ++i) {
            char fields[kRouteFields][VESK_TOKEN_SIZE] = {};
            getTokens(routes[i], ":", fields, kRouteFields);
            if (std::strcmp(fields[5], "1") != 0) continue;
            // A destination that would split the line is left unfiltered rather than written.
            if (!values::check("write_rip_conf", "static_route destination", fields[0],
                               values::Kind::token))
                continue;
            write_route_filter(f, ifname, fields[0], fields[1], classless);
        }
        f.printf("access-list private%s deny %s/%d\n", ifname, s.lan_ipaddr,
                     netmask_to_prefix_length(s.lan_netmask));
    }
    f.printf("access-list private%s permit any\n", ifname);
}

void write_direction(GeneratedFile &f, const char *ifname, bool is_lan, const RipSettings &s,
                     char (*routes)[VESK_TOKEN_SIZE], int route_count) {
    int version = atoi32(s.version);
    switch (s.direction) {
        case 1:  // send and receive
            f.printf("interface %s\n", ifname);
            write_send_version(f, s);
            f.printf("ip rip receive version %s\n", s.version);
            f.put("router rip\n");
            f.printf("distribute-list private%s out %s\n", ifname, ifname);
            write_private_filter(f, ifname, is_lan, s, routes, route_count, version == 2);
            break;
        case 2:  // receive only
            f.printf("interface %s\n", ifname);
            f.put("no ip rip send version\n");
            f.printf("ip rip receive version %s\n", s.version);
            f.put("router rip\n");
            f.printf("distribute-list private%s out %s\n", ifname, ifname);
            f.printf("access-list private%s deny any\n", ifname);
            break;
        case 3:  // send and receive, everything incoming filtered out; no receive-version line
            f.printf("interface %s\n", ifname);
            write_send_version(f, s);
            f.put("router rip\n");
            f.printf("distribute-list active%s in %s\n", ifname, ifname);
            f.printf("access-list active%s deny any\n", ifname);
            f.put("router rip\n");
            f.printf("distribute-list private%s out %s\n", ifname, ifname);
            write_private_filter(f, ifname, is_lan, s, routes, route_count, version > 1);
            break;
        default:
            break;
    }
}

}  // namespace

int start_rip() {
    char lan_ifname[kIfnameSize];
    char wan_ifname[kIfnameSize];
    store::read("lan_ifname", lan_ifname, sizeof lan_ifname);
    if (wan_proto_is_ppp())
        std::snprintf(wan_ifname, sizeof wan_ifname, "%s", "ppp0");
    else
        store::read("wan_ifname", wan_ifname, sizeof wan_ifname);

    // The sections are appended: start from nothing.
    unlink(kMulticastFlag);
    unlink(kZebraConf);
    unlink(kRipdConf);
    write_rip_conf(lan_ifname, 1);
    write_rip_conf(wan_ifname, 0);

    if (key_int("rip_enable") != 1) return 0;
    agApi_setDeviceListenPort(0, 520, 1);

    char zebra[] = "zebra", ripd[] = "ripd", d[] = "-d", f[] = "-f";
    char zebra_conf[] = "/tmp/zebra.conf", ripd_conf[] = "/tmp/ripd.conf";
    char *const zebra_argv[] = {zebra, d, f, zebra_conf, nullptr};
    char *const ripd_argv[] = {ripd, d, f, ripd_conf, nullptr};
    start_daemon(zebra_argv);
    return _eval_daemon(ripd_argv, ">/dev/console", 0, nullptr, 0);
}

int stop_rip() {
    char killall[] = "killall", zebra[] = "zebra", ripd[] = "ripd";
    char *const zebra_argv[] = {killall, zebra, nullptr};
    char *const ripd_argv[] = {killall, ripd, nullptr};
    start_daemon(zebra_argv);
    start_daemon(ripd_argv);
    return 0;
}

int write_rip_conf(const char *ifname, int is_lan) {
    if (ifname == nullptr) {
        std::fprintf(stderr, "write_rip_conf: no interface name\n");
        return EINVAL;
    }
    RipSettings s;
    // Each goes into directives of the section; one that would split them refuses the section.
    if (!values::check("write_rip_conf", "the interface name", ifname, values::Kind::ifname) ||
        !values::check("write_rip_conf", "rip_version", s.version, values::Kind::token) ||
        !values::check("write_rip_conf", "lan_ipaddr", s.lan_ipaddr, values::Kind::token))
        return EINVAL;

    char routes[kMaxStaticRoutes][VESK_TOKEN_SIZE] = {};
    int route_count = getTokens(get("static_route"), " ", routes, kMaxStaticRoutes);

    if (s.multicast == 1)
        if (int error = touch(kMulticastFlag, "w")) return error;
    if (int error = touch(kZebraConf, "a")) return error;

    // Each call adds the section of one interface to what the earlier calls wrote.
    GeneratedFile f(kRipdConf);
    if (!f || !f.keep_existing()) return errno;
    f.printf("interface %s\n", ifname);
    f.put(s.enabled && s.direction > 0 ? "router rip\n" : "no router rip\n");
    f.put("redistribute kernel\nredistribute connected\nredistribute static\n");
    f.printf("network %s\n", ifname);
    write_direction(f, ifname, is_lan != 0, s, routes, route_count);
    return f.commit();
}

int netmask_to_prefix_length(const char *netmask) {
    in_addr address{};
    if (netmask == nullptr || inet_pton(AF_INET, netmask, &address) != 1) return 24;
    std::uint32_t mask = ntohl(address.s_addr);
    return std::countl_one(mask);  // 0 when the top bit is clear
}
