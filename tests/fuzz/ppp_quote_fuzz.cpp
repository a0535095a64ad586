// The quoting of PPP user names and passwords for pppd's double-quoted strings: every "$",
// back-quote, double quote and backslash gets a backslash, the rest is copied, the result fits
// twice the length.
#include <array>

#include "fuzz_support.h"
#include "wan/ppp_common.h"

int fuzz::one(std::string_view input) {
    std::string src = std::string(input).c_str();
    std::vector<char> dst(2 * src.size() + 1, 'x');
    ppp::quote_into(src.c_str(), dst.data());
    fuzz::check(std::memchr(dst.data(), '\0', dst.size()) != nullptr, "not terminated");

    std::string unquoted;
    const char *special = "$`\"\\";
    for (const char *p = dst.data(); *p; ++p) {
        if (std::strchr(special, *p))
            fuzz::check(*++p && std::strchr(special, *p), "lone backslash");
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
