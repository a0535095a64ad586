// The route listing searched for the probing route: the first part is the address.
#include "failover/probes.h"
#include "fuzz_support.h"

int fuzz::one(std::string_view input) {
    std::vector<std::string> in = fuzz::parts(input, 2);
    for (const std::string &line : fuzz::lines(in[1]))
        if (route_line_names(line.c_str(), in[0].c_str())) break;
    return 0;
}
