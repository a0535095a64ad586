// The kernel's route table as /proc/net/route shows it: the first part is the WAN interface,
// the second the address, the rest the table.
#include "fuzz_support.h"
#include "services/dns.h"

int fuzz::one(const uint8_t *data, size_t size) {
    std::vector<std::string> in = fuzz::parts(fuzz::text(data, size), 3);
    File table = fuzz::memory_file(in[2], "r");
    int covered = route_table_covers(table.get(), in[0].c_str(), in[1].c_str());
    fuzz::check(covered == 0 || covered == 1, "result other than 0 or 1");
    return 0;
}
