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
#include "shared/generated_file.h"
#include "shared/store.h"
#include "shared/values.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

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

constexpr const char *kRoutine = "start_dhcp6s";

// A blank-separated list of words, as the option lines carry them: a quote, ';', a brace or a
// line end inside would end the option early or start another.
bool list_fits(const char *key, const char *list) {
    std::string_view rest = list;
    while (!rest.empty()) {
        std::size_t end = rest.find(' ');
        if (!values::fits(values::Kind::token, rest.substr(0, end))) {
            values::report_refused(kRoutine, key, list, "not a list of single words");
            return false;
        }
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    return true;
}

// An optional "option NAME LIST ;" line: left out when the list is empty or refused.
void option_line(GeneratedFile &f, const char *name, const char *key) {
    const char *list = get(key);
    if (*list != '\0' && list_fits(key, list)) f.printf("option %s %s ;\n", name, list);
}

void write_pool_range(GeneratedFile &f) {
    const char *lan = get("ipv6_lan_ipaddr");
    const char *length = get("ipv6_lan_length");
    char first[VESK_IPV6_TEXT_SIZE] = "";
    char last[VESK_IPV6_TEXT_SIZE] = "";
    create_ipv6_addr(lan, atoi32(length), "1000", first);
    create_ipv6_addr(lan, atoi32(length), "2000", last);
    if (values::check(kRoutine, "ipv6_lan_length", length, values::Kind::token))
        f.printf("range %s to %s/%s;\n", first, last, length);
}

void write_conf(GeneratedFile &f, const char *lan_ifname) {
    const char *lifetime = get("lan_dhcpsv6_lifetime");
    // The router's unsigned long is 32 bits: the product wraps there, and so it does here.
    std::uint32_t valid = strtoul32(lifetime);
    std::uint32_t renew = valid / 2;
    std::uint32_t rebind = static_cast<std::uint32_t>(3u * valid) / 4;
    bool pool = match("lan_dhcpsv6_enable", "1");
    const char *dns = get(lan_dns_server_key());

    f.printf("interface %s {\n", lan_ifname);
    if (values::check(kRoutine, lan_dns_server_key(), dns, values::Kind::token))
        f.printf("option dns_servers %s ;\n", dns);
    option_line(f, "sip_servers", "ipv6_sip_servers");
    option_line(f, "ntp_servers", "ipv6_ntp_servers");
    f.printf("renew-time %lu ;\n", static_cast<unsigned long>(renew));
    f.printf("rebind-time %lu ;\n", static_cast<unsigned long>(rebind));
    // The server's own default stands in for a lifetime that would split the line.
    if (values::check(kRoutine, "lan_dhcpsv6_lifetime", lifetime, values::Kind::token)) {
        f.printf("prefer-life-time %s ;\n", lifetime);
        f.printf("valid-life-time %s ;\n", lifetime);
    }
    f.put("allow rapid-commit ;\n");
    if (match("lan_dhcpsv6_enable", "0")) f.put("send information-only;\n");
    f.put("link LAN {\n");
    if (pool) {
        f.put("pool {\n");
        if (!match("ipv6_lan_ipaddr", "")) write_pool_range(f);
        f.put("};\n");
    }
    f.put("};\n");
    f.put("};\n\n");
}

}  // namespace

int start_dhcp6s() {
    if (ipv6_off()) return 0;

    // The server keeps its leases across restarts; it only needs the file to exist.
    if (!open_file(kLeasesPath, "a")) return open_failure(kLeasesPath);
    // The server cannot serve a LAN interface it could not be told about.
    const char *lan_ifname = get("lan_ifname");
    if (!values::check(kRoutine, "lan_ifname", lan_ifname, values::Kind::ifname)) return EINVAL;
    {
        GeneratedFile f(kConfPath);
        if (!f) return errno;
        write_conf(f, lan_ifname);
        if (int error = f.commit()) return error;
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
