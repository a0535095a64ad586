// make_6rd_prefix: the first line is the rule prefix, the second the IPv4 mask length, the
// third the WAN address as a number. A delegated length is at most 64 and comes with exactly
// four groups.
#include "fuzz_support.h"
#include "ipv6/tunnels.h"

int fuzz::one(std::string_view input) {
    std::vector<std::string> in = fuzz::parts(input, 3);
    long mask = std::strtol(in[1].c_str(), nullptr, 10);
    if (mask < -100 || mask > 100) return 0;
    uint32_t wan = static_cast<uint32_t>(std::strtoul(in[2].c_str(), nullptr, 0));

    char out[128] = "";
    int delegated = make_6rd_prefix(out, in[0].c_str(), static_cast<int>(mask), wan);
    if (delegated < 0) {
        fuzz::check(out[0] == '\0', "output written for a refused rule");
        return 0;
    }
    fuzz::check(delegated <= 64, "delegated length above 64");
    fuzz::check(std::count(out, out + std::strlen(out), ':') == 4 && std::strlen(out) <= 20,
                "not four groups");
    return 0;
}
