// Ping output: a summary is taken only with a loss of 0..100.
#include "failover/probes.h"
#include "fuzz_support.h"

int fuzz::one(std::string_view input) {
    for (const std::string &line : fuzz::lines(input)) {
        int transmitted = -7, received = -7, loss = 100;
        if (parse_ping_summary(line.c_str(), transmitted, received, loss)) {
            fuzz::check(loss >= 0 && loss <= 100, "loss outside 0..100");
            break;
        }
        fuzz::check(transmitted == -7 && received == -7 && loss == 100,
                    "counts changed by a line that is no summary");
    }
    return 0;
}
