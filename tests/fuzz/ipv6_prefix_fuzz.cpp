// get_ipv6_prefix: the first line is the address, the second the length. A prefix made is an
// address with no bit set beyond the length, and is its own prefix.
#include <arpa/inet.h>

#include "fuzz_support.h"
#include "ipv6/ipv6_wan.h"

int fuzz::one(std::string_view input) {
    std::vector<std::string> in = fuzz::parts(input, 2);
    long parsed = std::strtol(in[1].c_str(), nullptr, 10);
    int length = static_cast<int>(std::clamp(parsed, -1000L, 1000L));

    char out[kIpv6PrefixSize];
    std::memset(out, 'x', sizeof out);
    if (get_ipv6_prefix(in[0].c_str(), length, out) != 0) return 0;
    fuzz::check(memchr(out, '\0', sizeof out) != nullptr, "prefix text not terminated");

    std::string text(out);
    size_t slash = text.rfind('/');
    fuzz::check(slash != std::string::npos, "no length in the prefix text");
    unsigned char bytes[16];
    fuzz::check(inet_pton(AF_INET6, text.substr(0, slash).c_str(), bytes) == 1,
                "prefix is no IPv6 address");
    for (int bit = length < 0 ? 0 : length; bit < 128; ++bit)
        fuzz::check(!(bytes[bit / 8] & (0x80 >> (bit % 8))), "bit set beyond the length");

    char again[kIpv6PrefixSize];
    fuzz::check(get_ipv6_prefix(text.substr(0, slash).c_str(), length, again) == 0 &&
                    text == again,
                "prefix of the prefix differs");
    return 0;
}
