// IPv6 helpers of the platform library: EUI-64 identifiers, prefix + identifier joins, and
// the 6rd rules held in the configuration store.
#include "platform/nvram.h"
#include "platform/vesk_shared.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

bool parse_ipv6(const std::string &text, unsigned char out[16]) {
    return inet_pton(AF_INET6, text.c_str(), out) == 1;
}

// The identifier as the low bits of an address: "0211:22ff:fe33:4455" and "1000" are read as
// "::0211:22ff:fe33:4455" and "::1000"; a text that holds "::" or all eight groups as it is.
bool parse_identifier(const char *ifid, unsigned char out[16]) {
    std::string text(ifid);
    if (text.empty()) return false;
    if (text.find("::") == std::string::npos && parse_ipv6("::" + text, out)) return true;
    return parse_ipv6(text, out);
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
    while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
    return s;
}

// A decimal number 0..max with nothing else; -1 otherwise.
int small_number(std::string_view s, int max) {
    s = trim(s);
    if (s.empty() || s.size() > 3) return -1;
    int value = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return -1;
        value = value * 10 + (c - '0');
    }
    return value <= max ? value : -1;
}

// Copies `value` into a field of `size` bytes; false when it does not fit (a cut prefix or
// relay address would be a different one, so it is refused instead).
bool copy_field(std::string_view value, char *field, size_t size) {
    if (value.empty() || value.size() >= size) return false;
    std::memcpy(field, value.data(), value.size());
    field[value.size()] = '\0';
    return true;
}

bool fill_rule(int enable, std::string_view prefix, std::string_view mask_length,
               std::string_view relay, ipv6rd_rule_t *rule) {
    ipv6rd_rule_t r{};
    r.enable = enable;
    r.ipv4_mask_length = small_number(mask_length, 32);
    if (r.enable < 0 || r.ipv4_mask_length < 0) return false;
    if (!copy_field(trim(prefix), r.prefix, sizeof r.prefix)) return false;
    if (!copy_field(trim(relay), r.relay, sizeof r.relay)) return false;
    *rule = r;
    return true;
}

// The entries of `ipv6rd_rules`: separated by ';', empty entries skipped.
std::vector<std::string> rule_entries() {
    const char *value = veskNvramConfig_get("ipv6rd_rules");
    std::vector<std::string> entries;
    if (value == nullptr) return entries;
    std::string_view rest(value);
    while (!rest.empty()) {
        size_t end = rest.find(';');
        std::string_view entry = trim(rest.substr(0, end));
        if (!entry.empty()) entries.emplace_back(entry);
        if (end == std::string_view::npos) break;
        rest.remove_prefix(end + 1);
    }
    return entries;
}

}  // namespace

char *mac_addr_to_interface_id(const char *mac, char *out) {
    if (out == nullptr) return nullptr;
    out[0] = '\0';
    unsigned char m[6];
    if (ether_atoe(mac, m) == 0) return out;
    // EUI-64: the universal/local bit flipped, ff:fe inserted in the middle.
    std::snprintf(out, VESK_IPV6_TEXT_SIZE, "%02x%02x:%02xff:fe%02x:%02x%02x", m[0] ^ 0x02, m[1],
                  m[2], m[3], m[4], m[5]);
    return out;
}

char *create_ipv6_addr(const char *prefix, int prefix_len, const char *ifid, char *out) {
    if (out == nullptr) return nullptr;
    out[0] = '\0';
    if (prefix == nullptr || ifid == nullptr || prefix_len < 0 || prefix_len > 128) return out;
    // "address/length" is taken for its address part.
    std::string prefix_text(prefix);
    prefix_text = prefix_text.substr(0, prefix_text.find('/'));
    unsigned char address[16], identifier[16];
    if (!parse_ipv6(prefix_text, address) || !parse_identifier(ifid, identifier)) return out;
    // Bits past the prefix come from the identifier; identifier bits inside the prefix are lost.
    for (int i = 0; i < 16; ++i) {
        int keep = prefix_len - i * 8;  // prefix bits in this byte
        unsigned char mask = 0x00;
        if (keep >= 8) mask = 0xff;
        else if (keep > 0) mask = static_cast<unsigned char>(0xff << (8 - keep));
        address[i] = static_cast<unsigned char>((address[i] & mask) | (identifier[i] & ~mask));
    }
    char text[INET6_ADDRSTRLEN];
    if (inet_ntop(AF_INET6, address, text, sizeof text) == nullptr) return out;
    std::snprintf(out, VESK_IPV6_TEXT_SIZE, "%s", text);
    return out;
}

int get_6rd_auto_params(ipv6rd_rule_t *rule) {
    if (rule == nullptr) return 1;
    const char *prefix = veskNvramConfig_get("ipv6rd_auto_prefix");
    const char *mask_length = veskNvramConfig_get("ipv6rd_auto_masklen");
    const char *relay = veskNvramConfig_get("ipv6rd_auto_relay");
    if (prefix == nullptr || mask_length == nullptr || relay == nullptr) return 1;
    return fill_rule(1, prefix, mask_length, relay, rule) ? 0 : 1;
}

int getinst_ipv6rd_rules_shared(ipv6rd_rule_t *rule, int index) {
    std::vector<std::string> entries = rule_entries();
    if (rule == nullptr) return static_cast<int>(entries.size());
    if (index < 1 || index > static_cast<int>(entries.size())) return 1;
    // "enable,prefix/length,ipv4 mask length,relay"
    std::string_view entry = entries[static_cast<size_t>(index - 1)];
    std::vector<std::string_view> fields;
    while (true) {
        size_t comma = entry.find(',');
        fields.push_back(entry.substr(0, comma));
        if (comma == std::string_view::npos) break;
        entry.remove_prefix(comma + 1);
    }
    if (fields.size() != 4) return 1;
    return fill_rule(small_number(fields[0], 1), fields[1], fields[2], fields[3], rule) ? 0 : 1;
}
