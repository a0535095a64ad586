// escape_shell_string: the first byte is how many bytes to copy; the escaped text, read back
// as the shell reads backslashes, is exactly what was copied, and fits twice the length.
#include "fuzz_support.h"
#include "wan/ppp_common.h"

int fuzz::one(std::string_view input) {
    if (input.empty()) return 0;
    std::string src(input.substr(1));
    size_t len = std::min<size_t>(static_cast<uint8_t>(input[0]), src.size());
    std::vector<char> dst(2 * len + 1, 'x');
    fuzz::check(escape_shell_string(src.c_str(), dst.data(), len) == dst.data(), "wrong result");
    fuzz::check(std::memchr(dst.data(), '\0', dst.size()) != nullptr, "not terminated");

    std::string copied = src.substr(0, len).c_str();  // the copy stops at a NUL
    std::string unescaped;
    for (const char *p = dst.data(); *p; ++p) {
        if (*p == '\\')
            fuzz::check(*++p != '\0', "backslash at the end");
        else
            fuzz::check(!std::strchr(" !\"#$&'()*,;<>?[\\]^`{|}~", *p), "special left bare");
        unescaped += *p;
    }
    fuzz::check(unescaped == copied, "escaped text reads back differently");
    return 0;
}
