// A file descriptor closed on every path out of the scope that owns it.
#pragma once

#include <unistd.h>

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { close(); }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    bool is_open() const { return fd_ >= 0; }
    int get() const { return fd_; }
    // Closes now (for example before a message that must follow the close).
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};
