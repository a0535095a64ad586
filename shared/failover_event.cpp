#include "shared/failover_event.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "shared/file.h"

bool write_failover_event(char code) {
    // Opened read-write, which does not block on a FIFO without a reader. Never created: a
    // plain file made in the FIFO's place would hand the controller the same tokens again at
    // every read, so a missing FIFO drops the token instead.
    int fd = open(kFailoverFifo, O_RDWR | O_APPEND | O_CLOEXEC);
    File fifo(fd < 0 ? nullptr : fdopen(fd, "a+"));
    if (!fifo) {
        std::perror("Error opening fifo for appending...");
        if (fd >= 0) close(fd);
        return false;
    }
    const char token[2] = {code, ':'};
    std::fwrite(token, 1, sizeof token, fifo.get());
    return true;
}
