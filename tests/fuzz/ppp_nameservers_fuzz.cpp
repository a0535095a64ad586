// The PPP tunnels' merge of the user's servers into the resolver file: the first byte picks
// the line size, the first line is the server list, the rest the file. Nothing already in the
// file is lost.
#include "fuzz_support.h"
#include "services/dns.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    size_t line_size = 2 + data[0];
    std::vector<std::string> in = fuzz::parts(fuzz::text(data + 1, size - 1), 2);
    std::string merged = in[1];
    add_missing_nameservers(merged, in[0].c_str(), line_size);
    fuzz::check(merged.compare(0, in[1].size(), in[1]) == 0, "the file's old content changed");
    return 0;
}
