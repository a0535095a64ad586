#include "shared/values.h"

#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace values {
namespace {

constexpr std::size_t kShownLength = 64;

bool all_of(std::string_view text, bool (*ok)(unsigned char)) {
    for (unsigned char c : text)
        if (!ok(c)) return false;
    return true;
}

bool alnum(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool ifname_char(unsigned char c) {
    return alnum(c) || c == '.' || c == '_' || c == '-' || c == '@' || c == ':';
}

bool name_char(unsigned char c) {
    return alnum(c) || c == '.' || c == '_' || c == '-' || c == '/';
}

// Printable ASCII that no file we write reads as a separator, quote, comment or block.
bool token_char(unsigned char c) {
    return c > 0x20 && c < 0x7f && std::strchr("\"'#;{}[]\\", c) == nullptr;
}

bool parses_as(int family, std::string_view text) {
    if (text.size() > 45) return false;
    char copy[46];
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    unsigned char buf[16];
    return inet_pton(family, copy, buf) == 1;
}

bool is_number(std::string_view text) {
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) text.remove_prefix(1);
    if (text.empty() || text.size() > 20) return false;
    return all_of(text, [](unsigned char c) -> bool { return c >= '0' && c <= '9'; });
}

}  // namespace

bool has_control_character(std::string_view text) {
    for (unsigned char c : text)
        if (c < 0x20 || c == 0x7f) return true;
    return false;
}

bool fits(Kind kind, std::string_view text) {
    if (text.empty()) return true;
    switch (kind) {
        case Kind::ipv4: return text.size() <= 15 && parses_as(AF_INET, text);
        case Kind::ipv6: return parses_as(AF_INET6, text);
        case Kind::ifname: return text.size() <= 15 && all_of(text, ifname_char);
        case Kind::number: return is_number(text);
        case Kind::name: return text.size() <= 64 && all_of(text, name_char);
        case Kind::token: return all_of(text, token_char);
        case Kind::line: return !has_control_character(text);
        case Kind::trusted: return true;
    }
    return false;
}

const char *kind_name(Kind kind) {
    switch (kind) {
        case Kind::ipv4: return "an IPv4 address";
        case Kind::ipv6: return "an IPv6 address";
        case Kind::ifname: return "an interface name";
        case Kind::number: return "a number";
        case Kind::name: return "a name";
        case Kind::token: return "a single word";
        case Kind::line: return "a single line";
        case Kind::trusted: return "text";
    }
    return "value";
}

bool is_ipv4(std::string_view text) { return !text.empty() && fits(Kind::ipv4, text); }

bool is_ifname(std::string_view text) { return !text.empty() && fits(Kind::ifname, text); }

bool is_netmask(std::string_view text) {
    in_addr a{};
    if (text.empty() || text.size() > 15) return false;
    if (!parses_as(AF_INET, text)) return false;
    char copy[16];
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    inet_pton(AF_INET, copy, &a);
    const std::uint32_t zeros = ~ntohl(a.s_addr);
    return (zeros & (zeros + 1)) == 0;  // the zero bits form one run at the bottom
}

std::optional<std::string> ipv4_list(std::string_view text) {
    std::string list;
    std::size_t i = 0;
    while (i < text.size()) {
        if (text[i] == ' ' || text[i] == '\t') {
            ++i;
            continue;
        }
        std::size_t end = text.find_first_of(" \t", i);
        if (end == std::string_view::npos) end = text.size();
        std::string_view address = text.substr(i, end - i);
        if (!fits(Kind::ipv4, address)) return std::nullopt;
        if (!list.empty()) list += ' ';
        list += address;
        i = end;
    }
    return list;
}

std::string printable(std::string_view text) {
    std::string shown;
    for (unsigned char c : text.substr(0, kShownLength)) {
        if (c == '\n') shown += "\\n";
        else if (c < 0x20 || c >= 0x7f) shown += '?';
        else shown += static_cast<char>(c);
    }
    if (text.size() > kShownLength) shown += "...(" + std::to_string(text.size()) + " bytes)";
    return shown;
}

void report_refused(const char *routine, const char *what, std::string_view value,
                    const char *why) {
    std::fprintf(stderr, "%s: refused %s \"%s\": %s\n", routine, what, printable(value).c_str(),
                 why);
}

bool check(const char *routine, const char *what, std::string_view value, Kind kind) {
    if (fits(kind, value)) return true;
    std::string why = std::string("not ") + kind_name(kind);
    report_refused(routine, what, value, why.c_str());
    return false;
}

}  // namespace values
