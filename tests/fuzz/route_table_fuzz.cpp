// The kernel's route table as /proc/net/route shows it: the first part is the WAN interface,
// the second the address, the rest the table.
#include "fuzz_support.h"
#include "services/dns.h"
#include "shared/file.h"

int fuzz::one(std::string_view input) {
    std::vector<std::string> in = fuzz::parts(input, 3);
    File table(fmemopen(in[2].data(), in[2].size(), "r"));  // in memory, NULs and all
    int covered = route_table_covers(table.get(), in[0].c_str(), in[1].c_str());
    fuzz::check(covered == 0 || covered == 1, "result other than 0 or 1");
    return 0;
}
