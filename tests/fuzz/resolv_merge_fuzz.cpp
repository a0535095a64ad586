// The merge of a DNS list into the resolver file: the first part is the list, the rest the
// file as it was. With the session-2 file, every token of the list lands there.
#include "fuzz_support.h"
#include "services/dns.h"
#include "shared/values.h"

int fuzz::one(std::string_view input) {
    std::vector<std::string> in = fuzz::parts(input, 2);
    std::string merged = in[1];
    std::string session2;
    merge_dns_servers(merged, in[0].c_str(), &session2);

    fuzz::check(merged.find("options single-request\n") != std::string::npos,
                "no options line");
    std::string expected;
    const char *pos = in[0].c_str();
    char token[kDnsTokenSize];
    while (next_dns_token(pos, token))
        if (values::fits(values::Kind::token, token))
            expected += std::string("nameserver ") + token + "\n";
    fuzz::check(session2 == expected, "session-2 file differs");
    return 0;
}
