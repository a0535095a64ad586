// The DNS-list walker: tokens hold no blank, are cut to fit, and the walk only moves forward.

#include "fuzz_support.h"
#include "services/dns.h"

int fuzz::one(std::string_view input) {
    std::string list(input);
    const char *end = list.c_str() + std::strlen(list.c_str());
    const char *pos = list.c_str();
    char token[kDnsTokenSize];
    while (true) {
        const char *before = pos;
        bool more = next_dns_token(pos, token);
        fuzz::check(pos >= before && pos <= end, "walk left the list");
        fuzz::check(strnlen(token, sizeof token) < sizeof token, "token not terminated");
        fuzz::check(std::strchr(token, ' ') == nullptr, "blank inside a token");
        if (!more) break;
        fuzz::check(pos > before, "walk did not move");
    }
    fuzz::check(pos == end, "walk ended before the list did");
    return 0;
}
