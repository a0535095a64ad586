// The quoting of PPP user names and passwords for pppd's double-quoted strings: every "$",
// back-quote, double quote and backslash gets a backslash, the rest is copied, the result fits
// twice the length.
#include <algorithm>
#include <array>
#include <cstring>

#include "fuzz_support.h"
#include "wan/ppp_common.h"

int fuzz::one(const uint8_t *data, size_t size) {
    std::string src = std::string(fuzz::text(data, size)).c_str();
    std::vector<char> dst(2 * src.size() + 1, 'x');
    ppp::quote_into(src.c_str(), dst.data());
    fuzz::check(std::memchr(dst.data(), '\0', dst.size()) != nullptr, "not terminated");

    std::string unquoted;
    for (const char *p = dst.data(); *p; ++p) {
        bool special = *p == '$' || *p == '`' || *p == '"' || *p == '\\';
        if (special) {
            ++p;
            fuzz::check(*p == '$' || *p == '`' || *p == '"' || *p == '\\', "lone backslash");
        }
        unquoted += *p;
    }
    fuzz::check(unquoted == src, "quoted text reads back differently");

    // The fixed-size form the session starts use: a 64-byte value into a 128-byte buffer.
    std::array<char, 64> value{};
    std::memcpy(value.data(), src.c_str(), std::min(src.size(), value.size() - 1));
    auto quoted = ppp::quoted<128>(value);
    fuzz::check(std::memchr(quoted.data(), '\0', quoted.size()) != nullptr, "not terminated");
    return 0;
}
