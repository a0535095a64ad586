#include "failover/failover_event.h"

#include <cstdio>

#include "shared/file.h"

bool write_failover_event(char code) {
    // "a+" does not block on a FIFO without a reader (it opens read-write).
    File fifo = open_file(kFailoverFifo, "a+");
    if (!fifo) {
        std::perror("Error opening fifo for appending...");
        return false;
    }
    const char token[2] = {code, ':'};
    std::fwrite(token, 1, sizeof token, fifo.get());
    return true;
}
