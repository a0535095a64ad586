#include "services/event_input.h"

#include <arpa/inet.h>

#include <cstdint>

#include "shared/command.h"

bool valid_ifname(std::string_view name) {
    return !name.empty() && name.size() <= 15 && shell::value_fits(shell::Kind::ifname, name);
}

bool valid_ipv4(std::string_view text) {
    in_addr a{};
    return text.size() <= 15 && inet_pton(AF_INET, std::string(text).c_str(), &a) == 1;
}

bool valid_netmask(std::string_view text) {
    in_addr a{};
    if (text.size() > 15 || inet_pton(AF_INET, std::string(text).c_str(), &a) != 1) return false;
    const uint32_t zeros = ~ntohl(a.s_addr);
    return (zeros & (zeros + 1)) == 0;  // the zero bits form one run at the bottom
}

std::optional<std::string> ipv4_list(std::string_view text) {
    std::string list;
    size_t i = 0;
    while (i < text.size()) {
        if (text[i] == ' ' || text[i] == '\t') {
            ++i;
            continue;
        }
        size_t end = text.find_first_of(" \t", i);
        if (end == std::string_view::npos) end = text.size();
        std::string_view address = text.substr(i, end - i);
        if (!valid_ipv4(address)) return std::nullopt;
        if (!list.empty()) list += ' ';
        list += address;
        i = end;
    }
    return list;
}

std::string printable_value(std::string_view text) {
    std::string shown(text.substr(0, 64));
    for (char &c : shown)
        if (c < 0x20 || c > 0x7e) c = '?';
    return shown;
}
