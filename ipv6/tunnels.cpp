// 6to4 and 6rd: an IPv6 address derived from the WAN IPv4 address, the tunnel interface
// "sit0" with the global unicast space routed through the relay, and the IPv6 WAN start.
#include "ipv6/tunnels.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "ipv6/ipv6_wan.h"
#include "ipv6/spiv6.h"
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "shared/command.h"
#include "shared/store.h"

namespace {

// Sizes of the buffers values are read or written into; longer values are cut there.
constexpr std::size_t kWanAddressSize = 32;
constexpr std::size_t kGatewaySize = 256;
constexpr std::size_t kStatusSize = 256;
constexpr std::size_t kAddressSize = 128;
constexpr int kPrefixBits = 64;

using store::match;

using store::set;

void record_6rd(const char *status, const char *tunnel) {
    set("ipv6_6rd_status", status);
    set("ipv6_6rd_tunnel", tunnel);
}

// The WAN's IPv4 address as four octets, or nothing while it has none: a first octet of 0
// ("0.0.0.0") or the placeholder "64.64.64.64". A text that is no dotted quad counts as none.
std::optional<std::array<unsigned, 4>> wan_ipv4_octets(const char *routine) {
    std::array<char, kWanAddressSize> text{};
    store::read("wan_ipaddr", text.data(), text.size());
    int a = 0, b = 0, c = 0, d = 0;
    int fields = std::sscanf(text.data(), "%d.%d.%d.%d", &a, &b, &c, &d);
    if (a == 0 || std::strcmp(text.data(), "64.64.64.64") == 0) return std::nullopt;
    auto octet = [](int v) { return v >= 0 && v <= 255; };
    if (fields != 4 || !octet(a) || !octet(b) || !octet(c) || !octet(d)) {
        std::fprintf(stderr, "%s: WAN address \"%s\" is no IPv4 address\n", routine,
                     text.data());
        return std::nullopt;
    }
    return std::array<unsigned, 4>{unsigned(a), unsigned(b), unsigned(c), unsigned(d)};
}

std::string wan_interface_id() {
    std::array<char, VESK_IPV6_TEXT_SIZE> id{};
    mac_addr_to_interface_id(store::get("wan_hwaddr"), id.data());
    return id.data();
}

// A border relay "a.b.c.d" usable as a unicast address, as text made from its numbers.
std::optional<std::string> relay_address(const char *relay) {
    int a = 0, b = 0, c = 0, d = 0;
    if (std::sscanf(relay, "%d.%d.%d.%d", &a, &b, &c, &d) != 4) return std::nullopt;
    if (a < 1 || a > 254 || b < 0 || b > 254 || c < 0 || c > 254 || d < 1 || d > 254)
        return std::nullopt;
    char text[16];
    std::snprintf(text, sizeof text, "%d.%d.%d.%d", a, b, c, d);
    return std::string(text);
}

// A text field of a rule from the platform library, never read past its end.
template <std::size_t N>
std::string field(const char (&text)[N]) {
    return std::string(text, strnlen(text, N));
}

// Sets up the tunnel for one enabled rule: 1 when done, -1 when the rule cannot be used.
signed char start_6rd_rule(const ipv6rd_rule_t &rule) {
    constexpr const char *routine = "start_6rd_tunnel";
    std::optional<std::array<unsigned, 4>> wan = wan_ipv4_octets(routine);
    if (!wan) return -1;
    uint32_t wan_ipv4 = (*wan)[0] << 24 | (*wan)[1] << 16 | (*wan)[2] << 8 | (*wan)[3];

    char prefix[kAddressSize] = "";
    if (make_6rd_prefix(prefix, field(rule.prefix).c_str(), rule.ipv4_mask_length, wan_ipv4) < 0)
        return -1;
    std::string address = std::string(prefix) + wan_interface_id();

    std::optional<std::string> relay = relay_address(field(rule.relay).c_str());
    if (!relay) return -1;

    shell::run(routine, "ifconfig sit0 up");
    shell::run(routine, "route -A inet6 add 2000::/3 gw ::%s dev sit0", {shell::ipv4(*relay)});
    ipv6_wan_start("6rd", nullptr, nullptr, nullptr, address.c_str(), "64");
    return 1;
}

// The 16 bits of a hexadecimal group, most significant first.
void append_group_bits(std::string &bits, const char *group, std::size_t limit) {
    unsigned value = static_cast<unsigned>(std::strtoul(group, nullptr, 16)) & 0xFFFF;
    for (int bit = 15; bit >= 0 && bits.size() < limit; --bit)
        bits += (value >> bit) & 1 ? '1' : '0';
}

}  // namespace

int make_6to4_address(char *out) {
    std::optional<std::array<unsigned, 4>> wan = wan_ipv4_octets("make_6to4_address");
    if (!wan) return -1;
    unsigned sla_id = static_cast<unsigned>(std::atoi(store::get("ipv6_6to4_sla_id")));
    std::snprintf(out, kAddressSize, "2002:%02X%02X:%02X%02X:%04X:%s", (*wan)[0], (*wan)[1],
                  (*wan)[2], (*wan)[3], sla_id, wan_interface_id().c_str());
    return 0;
}

int start_6to4_tunnel() {
    if (!match("ipv6_proto", "6to4") &&
        !(match("ipv6_proto", "auto") && match("ipv6_proto_auto", "6to4")))
        return 0;
    ipv6_drop_all_packet(0);
    char address[kAddressSize] = "";
    if (make_6to4_address(address) != 0) return -1;

    shell::run("start_6to4_tunnel", "ifconfig sit0 up");
    const char *relay = store::get(
        match("ipv6_6to4_relay", "0") ? "ipv6_6to4_router" : "ipv6_static_ip");
    std::string gateway = std::string("::") + relay;
    if (gateway.size() >= kGatewaySize) gateway.resize(kGatewaySize - 1);
    // An argument vector, no shell: the relay text reaches route as one argument.
    std::vector<std::string> args = {"route", "-A", "inet6", "add", "2000::/3",
                                     "gw",    gateway, "dev", "sit0"};
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    _eval_daemon(argv.data(), ">/dev/console", 0, nullptr, 0);

    set("ipv6_6to4_tunnel", "up");
    ipv6_wan_start("6to4", nullptr, nullptr, nullptr, address, "64");
    return 0;
}

int start_6rd_tunnel() {
    bool automatic = match("ipv6rd_auto_mode", "1");
    ipv6rd_rule_t rule{};
    int count = 0;
    if (automatic) {
        if (get_6rd_auto_params(&rule) != 0) {
            // "up" closes every path, even when no tunnel was built.
            record_6rd("", "down");
            record_6rd("", "up");
            return 0;
        }
        count = 1;
        record_6rd("", "down");
    } else {
        count = getinst_ipv6rd_rules_shared(nullptr, 0);
        record_6rd("", "down");
        if (count < 1) {
            record_6rd("", "up");
            return 0;
        }
    }

    // 1 tunnel set up, 0 rule disabled, -1 rule unusable (a signed byte, as it is stored).
    std::vector<signed char> status(static_cast<std::size_t>(count), 0);
    for (int i = 1; i <= count; ++i) {
        signed char &st = status[static_cast<std::size_t>(i - 1)];
        // Only manual mode fetches rules; any other value than "0" or "1" leaves the rule
        // cleared, hence disabled.
        if (match("ipv6rd_auto_mode", "0") && getinst_ipv6rd_rules_shared(&rule, i) != 0) {
            st = -1;
            continue;
        }
        st = rule.enable == 1 ? start_6rd_rule(rule) : 0;
    }

    std::string list;
    for (signed char st : status) list += std::to_string(st) + ";";
    if (list.size() >= kStatusSize) list.resize(kStatusSize - 1);
    record_6rd(list.c_str(), "up");
    return 0;
}

int make_6rd_prefix(char *out, const char *rule_prefix, int ipv4_mask_length, uint32_t wan_ipv4) {
    if (!out || !rule_prefix) return -1;
    char parts[10][VESK_TOKEN_SIZE];
    if (getTokens(rule_prefix, "/", parts, 10) != 2) return -1;
    int prefix_length = std::atoi(parts[1]);
    // Lengths no rule can have are refused rather than computed with (a huge one would
    // overflow the group count below).
    if (prefix_length < 0 || prefix_length > 128 || ipv4_mask_length < 0 ||
        ipv4_mask_length > 32)
        return -1;

    char groups[10][VESK_TOKEN_SIZE];
    int group_count = getTokens(parts[0], ":", groups, 10);
    if (group_count < (prefix_length + 15) / 16) return -1;

    int delegated = 32 - ipv4_mask_length + prefix_length;
    if (delegated > kPrefixBits) return -1;

    std::string bits;
    for (int g = 0; g < group_count; ++g)
        append_group_bits(bits, groups[g], static_cast<std::size_t>(prefix_length));
    for (int bit = 31 - ipv4_mask_length; bit >= 0; --bit)
        bits += (wan_ipv4 >> bit) & 1 ? '1' : '0';
    bits.resize(kPrefixBits, '0');

    std::string text;
    for (int piece = 0; piece < 4; ++piece) {
        unsigned long value = std::strtoul(bits.substr(piece * 16, 16).c_str(), nullptr, 2);
        char group[8];
        std::snprintf(group, sizeof group, "%lx:", value);
        text += group;
    }
    std::strcat(out, text.c_str());
    return delegated;
}
