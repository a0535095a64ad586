// The removal of a WAN's servers from the resolver file: the first part is the WAN's DNS list,
// the rest the file. The result holds only server lines, then one options line.
#include "fuzz_support.h"
#include "services/dns.h"

int fuzz::one(std::string_view input) {
    std::vector<std::string> in = fuzz::parts(input, 2);
    for (bool japan : {false, true}) {
        std::string kept = remove_dns_servers(in[1], in[0].c_str(), japan);
        static const std::string options = "options single-request\n";
        fuzz::check(kept.ends_with(options), "file does not end with the options line");
        for (const std::string &line : fuzz::lines(kept.substr(0, kept.size() - options.size())))
            fuzz::check(line.rfind("nameserver ", 0) == 0 || line.size() == 255,
                        "line other than a server line");
    }
    return 0;
}
