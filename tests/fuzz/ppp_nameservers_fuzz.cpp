// The PPP tunnels' merge of the user's servers into the resolver file: the first byte picks
// the line size, the first line is the server list, the rest the file. Nothing already in the
// file is lost.
#include "fuzz_support.h"
#include "services/dns.h"

int fuzz::one(std::string_view input) {
    if (input.empty()) return 0;
    size_t line_size = 2 + static_cast<uint8_t>(input[0]);
    std::vector<std::string> in = fuzz::parts(input.substr(1), 2);
    std::string merged = in[1];
    add_missing_nameservers(merged, in[0].c_str(), line_size);
    fuzz::check(merged.starts_with(in[1]), "the file's old content changed");
    return 0;
}
