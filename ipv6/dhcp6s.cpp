// The LAN's DHCPv6 server: "/tmp/dhcp6s.conf" is written whole from the configuration store,
// then dhcp6s is started on it. The server hands out addresses ::1000 to ::2000 of the LAN
// prefix, or answers information requests only.
#include "ipv6/dhcp6s.h"

#include "shared/c_numbers.h"
#include "ipv6/radvd.h"
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "shared/command.h"
#include "shared/file.h"
#include "shared/store.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char *kLeasesPath = "/tmp/server6.leases";
constexpr const char *kConfPath = "/tmp/dhcp6s.conf";
constexpr const char *kDebugFifo = "/tmp/dhcp6s_debug.fifo";
constexpr const char *kDebugText = "/tmp/dhcp6s_debug.txt";
constexpr int kDebugTextBound = 1000;
constexpr std::size_t kProtoSize = 32;

using store::match;
using store::get;

bool ipv6_off() {
    char proto[kProtoSize] = "";  // longer values are cut to the 31 characters it holds
    store::read("ipv6_proto", proto, sizeof proto);
    return std::strcmp(proto, "disable") == 0 || std::strcmp(proto, "passthrough") == 0 ||
           (std::strcmp(proto, "auto") == 0 && match("ipv6_proto_auto", "passthrough"));
}

int open_failure(const char *path) {
    int error = errno;
    std::perror(path);
    return error;
}

void write_pool_range(std::FILE *f) {
    const char *lan = get("ipv6_lan_ipaddr");
    const char *length = get("ipv6_lan_length");
    char first[VESK_IPV6_TEXT_SIZE] = "";
    char last[VESK_IPV6_TEXT_SIZE] = "";
    create_ipv6_addr(lan, atoi32(length), "1000", first);
    create_ipv6_addr(lan, atoi32(length), "2000", last);
    std::fprintf(f, "range %s to %s/%s;\n", first, last, length);
}

void write_conf(std::FILE *f) {
    const char *lifetime = get("lan_dhcpsv6_lifetime");
    // The router's unsigned long is 32 bits: the product wraps there, and so it does here.
    std::uint32_t valid = strtoul32(lifetime);
    std::uint32_t renew = valid / 2;
    std::uint32_t rebind = static_cast<std::uint32_t>(3u * valid) / 4;
    bool pool = match("lan_dhcpsv6_enable", "1");

    std::fprintf(f, "interface %s {\n", get("lan_ifname"));
    std::fprintf(f, "option dns_servers %s ;\n", lan_dns_server());
    if (!match("ipv6_sip_servers", ""))
        std::fprintf(f, "option sip_servers %s ;\n", get("ipv6_sip_servers"));
    if (!match("ipv6_ntp_servers", ""))
        std::fprintf(f, "option ntp_servers %s ;\n", get("ipv6_ntp_servers"));
    std::fprintf(f, "renew-time %lu ;\n", static_cast<unsigned long>(renew));
    std::fprintf(f, "rebind-time %lu ;\n", static_cast<unsigned long>(rebind));
    std::fprintf(f, "prefer-life-time %s ;\n", lifetime);
    std::fprintf(f, "valid-life-time %s ;\n", lifetime);
    std::fprintf(f, "allow rapid-commit ;\n");
    if (match("lan_dhcpsv6_enable", "0")) std::fprintf(f, "send information-only;\n");
    std::fprintf(f, "link LAN {\n");
    if (pool) {
        std::fprintf(f, "pool {\n");
        if (!match("ipv6_lan_ipaddr", "")) write_pool_range(f);
        std::fprintf(f, "};\n");
    }
    std::fprintf(f, "};\n");
    std::fprintf(f, "};\n\n");
}

}  // namespace

int start_dhcp6s() {
    if (ipv6_off()) return 0;

    // The server keeps its leases across restarts; it only needs the file to exist.
    if (!open_file(kLeasesPath, "a")) return open_failure(kLeasesPath);
    {
        File f = open_file(kConfPath, "w");
        if (!f) return open_failure(kConfPath);
        write_conf(f.get());
    }

    if (match("hidden_page_debug_ipv6", "1")) {
        if (abfifo_is_running_or_not(kDebugFifo) == 0)
            initial_abfifo(kDebugFifo, kDebugText, kDebugTextBound);
        shell::run("start_dhcp6s", "echo '==========' >> %s &", {shell::trusted(kDebugFifo)});
        shell::run("start_dhcp6s", "dhcp6s -f -D -c %s 2>>%s &",
                   {shell::trusted(kConfPath), shell::trusted(kDebugFifo)});
        return 0;
    }
    char program[] = "dhcp6s";
    char option[] = "-c";
    char conf[] = "/tmp/dhcp6s.conf";
    char *const argv[] = {program, option, conf, nullptr};
    int pid = 0;
    return _eval(argv, nullptr, 0, &pid) < 0 ? 1 : 0;
}
